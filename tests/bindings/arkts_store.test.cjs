// The script half of the OpenHarmony package, packaging/ohos, in Node.js: compiled as TypeScript, over the
// same native functions.
//
//   KESTRUN_OHOS_PACKAGE   packaging/ohos
//   KESTRUN_NODE_PACKAGE   the npm package, with its native module and what its tests need
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');

const ohos = process.env.KESTRUN_OHOS_PACKAGE;
const npm = process.env.KESTRUN_NODE_PACKAGE;
const ts = require(path.join(npm, 'node_modules/typescript'));
const native = require(path.join(npm, 'lib/native.js'));
const source = path.join(ohos, 'src/main/ets/Store.ets');

const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-arkts-'));
process.on('exit', () => fs.rmSync(scratch, { recursive: true, force: true }));

// Store.ets as a module of Node.js.
function load() {
  const { outputText } = ts.transpileModule(fs.readFileSync(source, 'utf8'), {
    compilerOptions: { module: ts.ModuleKind.CommonJS, target: ts.ScriptTarget.ES2022 },
  });
  const loaded = { exports: {} };
  const requireNative = (name) => {
    assert.equal(name, 'libkestrunstore.so');
    return native;
  };
  new Function('module', 'exports', 'require', outputText)(loaded, loaded.exports, requireNative);
  return loaded.exports;
}

const { Store } = load();
const text = (bytes) => Buffer.from(bytes).toString();
const texts = (entries) => entries.map(({ key, value }) => [text(key), text(value)]);
let stores = 0;
const newPath = () => path.join(scratch, `store ${stores++}`);

test('the declarations name exactly the native functions, and the script compiles strictly against them', () => {
  const types = path.join(ohos, 'types/libkestrunstore/index.d.ts');
  const declared = [...fs.readFileSync(types, 'utf8').matchAll(/^export const (\w+):/gm)].map(([, name]) => name);
  assert.deepEqual(declared.sort(), Object.keys(native).sort());

  fs.mkdirSync(path.join(scratch, 'src/main/ets'), { recursive: true });
  fs.copyFileSync(source, path.join(scratch, 'src/main/ets/Store.ts'));
  fs.copyFileSync(path.join(ohos, 'Index.ets'), path.join(scratch, 'Index.ts'));
  const program = ts.createProgram([path.join(scratch, 'Index.ts')], {
    strict: true, noEmit: true, noUnusedLocals: true, noImplicitReturns: true, types: [],
    target: ts.ScriptTarget.ES2022, lib: ['lib.es2022.d.ts'], module: ts.ModuleKind.CommonJS,
    paths: {
      'libkestrunstore.so': [types],
      'libKestrun2.so': [path.join(ohos, 'types/libKestrun2/index.d.ts')],
    },
  });
  assert.deepEqual(ts.getPreEmitDiagnostics(program).map(({ messageText }) => messageText), []);
});

test('the script keeps to what ArkTS has of TypeScript', () => {
  const refused = new Set([
    ts.SyntaxKind.AnyKeyword, ts.SyntaxKind.UnknownKeyword, ts.SyntaxKind.ObjectBindingPattern,
    ts.SyntaxKind.ArrayBindingPattern, ts.SyntaxKind.FunctionExpression, ts.SyntaxKind.PrivateIdentifier,
    ts.SyntaxKind.DeleteExpression, ts.SyntaxKind.InKeyword, ts.SyntaxKind.ForInStatement, ts.SyntaxKind.YieldExpression,
    ts.SyntaxKind.IntersectionType, ts.SyntaxKind.IndexSignature, ts.SyntaxKind.MappedType,
    ts.SyntaxKind.ConditionalType, ts.SyntaxKind.TypeQuery, ts.SyntaxKind.TypeLiteral, ts.SyntaxKind.SpreadAssignment,
    ts.SyntaxKind.ClassExpression, ts.SyntaxKind.NonNullExpression, ts.SyntaxKind.VarKeyword,
  ]);
  const found = [];
  const file = ts.createSourceFile('Store.ts', fs.readFileSync(source, 'utf8'), ts.ScriptTarget.ES2022, true);
  const visit = (node) => {
    if (refused.has(node.kind)) found.push(`${ts.SyntaxKind[node.kind]}: ${node.getText()}`);
    ts.forEachChild(node, visit);
  };
  visit(file);
  assert.deepEqual(found, []);
});

test('a store opens, stores, reads and deletes, by promises', async () => {
  const where = newPath();
  await assert.rejects(Store.open(where, { createIfMissing: false }), { code: 'kStatusStoreMissing', status: 5 });
  const store = await Store.open(where);
  await store.put('colour', 'green');
  await store.put(new Uint8Array([1, 2]), new Uint8Array([0, 255]));
  assert.equal(await store.getText('colour'), 'green');
  const bytes = await store.get(new Uint8Array([1, 2]));
  assert.equal(bytes.constructor, Uint8Array);
  assert.deepEqual([...bytes], [0, 255]);
  await store.put('empty', '');
  assert.equal(await store.getText('empty'), '');
  assert.equal((await store.get('empty')).length, 0);
  assert.equal(await store.get('missing'), undefined);
  assert.equal(await store.getText('missing'), undefined);
  await store.delete('colour');
  assert.equal(await store.get('colour'), undefined);
  await store.close();
  await assert.rejects(store.get('empty'), { code: 'KESTRUN_NOT_OPEN' });
  await assert.rejects(store.close(), { code: 'KESTRUN_NOT_OPEN' });
  await assert.rejects(Store.open(where, { errorIfExists: true }), { code: 'kStatusStoreExists' });
  const again = await Store.open(where, { createIfMissing: false });
  assert.equal(await again.getText('empty'), '');
  await again.close();
});

test('the Sync twins do the same on the calling thread', () => {
  const where = newPath();
  assert.throws(() => Store.openSync(where, { createIfMissing: false }), { code: 'kStatusStoreMissing' });
  const store = Store.openSync(where);
  store.putSync('a', '1');
  store.putSync('b', new Uint8Array([50]), 60);
  store.batchSync([{ key: 'c', value: '3' }, { key: 'a' }]);
  assert.equal(store.getTextSync('c'), '3');
  assert.equal(store.getSync('a'), undefined);
  store.deleteSync('c');
  const snapshot = store.snapshot();
  store.putSync('d', '4');
  assert.deepEqual(texts(store.entriesSync()), [['b', '2'], ['d', '4']]);
  assert.deepEqual(texts(snapshot.entriesSync()), [['b', '2']]);
  assert.equal(snapshot.getTextSync('d'), undefined);
  assert.equal(text(snapshot.getSync('b')), '2');
  store.closeSync();
  assert.throws(() => store.getSync('b'), { code: 'KESTRUN_NOT_OPEN' });
  // The moment outlives the store.
  assert.deepEqual(texts(snapshot.entriesSync()), [['b', '2']]);
  snapshot.close();
  assert.throws(() => snapshot.getSync('b'));
});

test('a batch is written as a whole or not at all', async () => {
  const store = await Store.open(newPath(), { logSize: 4096 });
  await store.put('stays', 'here');
  await assert.rejects(store.batch([{ key: 'stays' }, { key: 'large', value: 'v'.repeat(5000) }]),
    { code: 'kStatusWalFull' });
  await assert.rejects(store.batch([{ key: 'stays' }, { key: '', value: 'no key' }]), { code: 'kStatusInvalid' });
  assert.equal(await store.getText('stays'), 'here');
  await store.batch([{ key: 'stays' }, { key: 'a', value: '1', ttl: 60 }, { key: 'b', value: '2' }]);
  assert.deepEqual(texts(await store.entries()), [['a', '1'], ['b', '2']]);
  await store.close();
});

test('entries come in order, over any range, in parts', async () => {
  const store = await Store.open(newPath());
  const keys = Array.from({ length: 2500 }, (_, i) => `key ${String(i).padStart(4, '0')}`);
  await store.batch(keys.map((key) => ({ key, value: key })));
  const keysOf = async (range) => (await store.entries(range)).map(({ key }) => text(key));
  assert.deepEqual(await keysOf(), keys);
  assert.deepEqual(await keysOf({ reverse: true }), [...keys].reverse());
  assert.deepEqual(await keysOf({ from: keys[10], to: keys[12] }), keys.slice(10, 12));
  assert.deepEqual(await keysOf({ from: keys[10], to: keys[2000], limit: 1001 }), keys.slice(10, 1011));
  assert.deepEqual(await keysOf({ to: keys[5], reverse: true, limit: 2 }), [keys[4], keys[3]]);
  assert.deepEqual(await keysOf({ from: 'x' }), []);
  assert.deepEqual(await keysOf({ limit: 0 }), []);
  assert.deepEqual(store.entriesSync({ from: keys[2498] }).map(({ key }) => text(key)), keys.slice(2498));
  await store.close();
});

test('a read sees the moment of its call, and writes keep the order of the calls', async () => {
  const store = await Store.open(newPath());
  const read = store.entries();
  const got = store.get('a');
  const writes = [];
  for (let i = 0; i < 100; i++) writes.push(store.put('a', String(i)));
  assert.deepEqual(await read, []);
  assert.equal(await got, undefined);
  assert.throws(() => store.closeSync(), { code: 'KESTRUN_BUSY' });
  await Promise.all(writes);
  assert.equal(await store.getText('a'), '99');
  await store.close();
});

test('maintenance and copies work', async () => {
  const store = await Store.open(newPath());
  await store.put('a', '1');
  await store.flush();
  await store.compact();
  await store.sync();
  const copy = newPath();
  await store.checkpoint(copy);
  await assert.rejects(store.checkpoint(copy), { code: 'kStatusStoreExists' });
  await store.close();
  const copied = Store.openSync(copy, { createIfMissing: false });
  assert.equal(copied.getTextSync('a'), '1');
  copied.closeSync();
});

test('arguments that can not be used are errors', async () => {
  for (const logSize of [128, 0, -1, 1.5, 2 ** 32, NaN, Infinity]) {
    await assert.rejects(Store.open(newPath(), { logSize }), RangeError);
    assert.throws(() => Store.openSync(newPath(), { logSize }), RangeError);
  }
  await assert.rejects(Store.open(newPath(), { busyTimeout: -1 }), RangeError);
  const store = await Store.open(newPath());
  for (const ttl of [0, -1, NaN]) await assert.rejects(store.put('k', 'v', ttl), RangeError);
  for (const ttl of [0.5, 2 ** 32 + 1, Infinity]) {
    await store.put('k', 'v', ttl);
    assert.equal(await store.getText('k'), 'v');
  }
  await assert.rejects(store.put('', 'v'), { code: 'kStatusInvalid' });
  await assert.rejects(store.put('k'.repeat(65536), 'v'), { code: 'kStatusInvalid' });
  await assert.rejects(store.put(new Uint8Array([255]), 'v'), { code: 'kStatusInvalid' });
  await assert.rejects(store.get(7), TypeError);
  await assert.rejects(store.put('k', null), TypeError);
  await assert.rejects(store.entries({ limit: -1 }), RangeError);
  await store.close();
});
