// Drives the third-party client by lines of JSON: {"do": "connect", ...} on standard input, one answer a line on
// standard output. What the end-to-end tests speak.
'use strict';

const readline = require('readline');
const { OpcClient } = require('./opc-client');

console.log = () => {};  // the library prints progress there; standard output is for answers

const client = new OpcClient();
const commands = {
  connect: (c) => client.connect(c),
  browse: () => client.browse(),
  browseTree: () => client.browseTree(),
  status: () => client.status(),
  watch: (c) => client.watch(c.items),
  read: (c) => client.read(c.source, c.items),
  write: (c) => client.write(c.items, c.value),
  close: () => client.close(),
};

async function main() {
  for await (const line of readline.createInterface({ input: process.stdin })) {
    const command = JSON.parse(line);
    let answer;
    try {
      answer = { ok: (await commands[command.do](command)) ?? null };
    } catch (error) {
      answer = { error: String(error && error.message ? error.message : error) };
    }
    process.stdout.write(JSON.stringify(answer) + '\n');
  }
  process.exit(0);
}

main();
