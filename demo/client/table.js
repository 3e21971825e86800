// Shows the server's items as a live table: item, value, quality in hex and words, time stamp.
//   node table.js [--once] [--json] [--address A] [--user U]      password in the environment: OPC_PASSWORD
// --once prints the table once, after the first update pass that gave good values, and ends.
'use strict';

const { OpcClient } = require('./opc-client');

const debug = console.log;
console.log = () => {};

const WORDS = require('./qualities.json');
const TYPES = new Map([[2, 'I2'], [3, 'I4'], [4, 'R4'], [5, 'R8'], [7, 'DATE'], [8, 'BSTR'], [11, 'BOOL'], [0, '-']]);

function qualityWords(quality) {
  const words = WORDS[quality & 0xfc] ?? 'unknown';
  return quality & 0x8000 ? `${words} (down)` : words;
}

function row(item, type) {
  const value = item.value === null ? '' : typeof item.value === 'number' ? String(Number(item.value.toPrecision(7))) : String(item.value);
  const quality = '0x' + item.quality.toString(16).toUpperCase().padStart(4, '0');
  return [item.itemID, type, value, quality, qualityWords(item.quality), item.timestamp.replace('T', ' ').replace('Z', '')];
}

function format(rows) {
  const head = ['Item', 'Type', 'Value', 'Quality', '', 'Time stamp (UTC)'];
  const widths = head.map((text, column) => Math.max(text.length, ...rows.map((r) => r[column].length)));
  const line = (r) => r.map((text, column) => text.padEnd(widths[column])).join('  ').trimEnd();
  return [line(head), line(widths.map((w) => '-'.repeat(w))), ...rows.map(line)].join('\n');
}

const isGood = (item) => (item.quality & 0xc0) === 0xc0;
const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

function option(name, otherwise) {
  const at = process.argv.indexOf(name);
  return at > 0 ? process.argv[at + 1] : otherwise;
}

async function main() {
  const once = process.argv.includes('--once');
  const json = process.argv.includes('--json');
  const client = new OpcClient();
  await client.connect({
    address: option('--address', '127.0.0.1'),
    user: option('--user', 'operator'),
    password: process.env.OPC_PASSWORD ?? '',
  });
  const names = (await client.browse()).sort();
  const types = new Map((await client.watch(names)).map((item) => [item.itemID, TYPES.get(item.dataType) ?? String(item.dataType)]));
  const deadline = Date.now() + 90000;
  for (;;) {
    const items = await client.read('cache');
    // A server started shortly before a pass has its parameters for it, but not the channels yet: wait for most items.
    const ready = items.filter(isGood).length * 2 > items.length;
    if (!once || ready) {
      const rows = items.map((item) => row(item, types.get(item.itemID)));
      const text = json ? JSON.stringify(items, null, 1) : format(rows);
      debug(once || json ? text : `\x1b[2J\x1b[H${text}\n\nCtrl-C ends the display.`);
    }
    if (once && ready) {
      break;
    }
    if (once && Date.now() > deadline) {
      throw new Error('most items had no good value within 90 seconds');
    }
    await pause(1000);
  }
  await client.close();
  process.exit(0);
}

main().catch((error) => {
  console.error(`OPC client: ${error && error.message ? error.message : error}`);
  process.exit(1);
});
