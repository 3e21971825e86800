// A thin layer over the third-party library node-opc-da: what a historian or an operator display would call.
'use strict';

const opcda = require('node-opc-da');
const { dcom } = opcda;

const CLASS_ID = '43FB6634-CC72-4EE9-A292-BEDF9FF018BD';
const CACHE = 1;
const DEVICE = 2;

class OpcClient {
  // address: numeric IPv4 address; activation is always on port 135.
  async connect({ address = '127.0.0.1', domain = 'DEMO', user, password }) {
    this.session = new dcom.Session().createSession(domain, user, password);
    this.session.setGlobalSocketTimeout(10000);
    this.comServer = new dcom.ComServer(new dcom.Clsid(CLASS_ID), address, this.session);
    await this.comServer.init();
    this.server = new opcda.OPCServer();
    await this.server.init(await this.comServer.createInstance());
  }

  async browse() {
    const browser = await this.server.getBrowser();
    const items = await browser.browseAllFlat();
    await browser.end();
    return items;
  }

  async browseTree() {
    const browser = await this.server.getBrowser();
    const tree = await browser.browseAllTree();
    await browser.end();
    return tree;
  }

  status() {
    return this.server.getStatus();
  }

  // Makes a group with these items; gives one { itemID, error, dataType, accessRights } an item.
  async watch(itemIDs) {
    this.group = await this.server.addGroup(`table-${process.pid}-${Date.now()}`, {});
    this.items = await this.group.getItemManager();
    this.sync = await this.group.getSyncIO();
    const added = await this.items.add(itemIDs.map((itemID, index) => ({ itemID, clientHandle: index })));
    this.handles = [];
    this.names = [];
    return added.map(([error, item]) => {
      if (error === 0) {
        this.handles.push(item.serverHandle);
        this.names.push(item.itemID);
      }
      return { itemID: item.itemID, error, dataType: item.cannonicalDataType, accessRights: item.accessRights };
    });
  }

  // One { itemID, value, quality, timestamp, error } an item; source 'cache' or 'device'.
  async read(source = 'cache', itemIDs = this.names) {
    const handles = itemIDs.map((name) => this.handles[this.names.indexOf(name)]);
    const states = await this.sync.read(source === 'device' ? DEVICE : CACHE, handles);
    return states.map((state, index) => ({
      itemID: itemIDs[index],
      value: plain(state.value),
      quality: state.quality & 0xffff,
      timestamp: state.timestamp.toISOString(),
      error: state.errorCode,
    }));
  }

  // The library's own write() stops before it sends; this sends the same call. Gives one result code an item.
  async write(itemIDs, value) {
    const { CallBuilder, ComArray, ComValue, Flags, Pointer, Types } = dcom;
    const handles = itemIDs.map((name) => new ComValue(this.handles[this.names.indexOf(name)], Types.INTEGER));
    const values = itemIDs.map(() => new ComValue(new dcom.Variant.Variant(new ComValue(value, Types.DOUBLE)), Types.VARIANT));
    const call = new CallBuilder(true);
    call.setOpnum(1);
    call.addInParamAsInt(handles.length, Flags.FLAG_NULL);
    call.addInParamAsArray(new ComArray(new ComValue(handles, Types.INTEGER), true), Flags.FLAG_NULL);
    call.addInParamAsArray(new ComArray(new ComValue(values, Types.VARIANT), true), Flags.FLAG_NULL);
    const errors = new ComArray(new ComValue(null, Types.INTEGER), null, 1, true);
    call.addOutParamAsObject(new ComValue(new Pointer(new ComValue(errors, Types.COMARRAY)), Types.POINTER), Flags.FLAG_NULL);
    const reply = await this.sync._comObj.call(call);
    return reply.getResults()[0].getValue().getReferent().getArrayInstance().map((code) => code.getValue() >>> 0);
  }

  // Gives everything back and ends the session, so that the process can end.
  async close() {
    for (const part of [this.sync, this.items, this.group, this.server]) {
      if (part) {
        await part.end();
      }
    }
    await this.session.destroySession(this.session);
  }
}

function plain(value) {
  if (value === null || value === undefined) {
    return null;
  }
  if (value instanceof Date) {
    return value.toISOString();
  }
  if (typeof value === 'object') {
    return Object.keys(value).length === 0 ? null : String(value.valueOf());
  }
  return value;
}

module.exports = { OpcClient };
