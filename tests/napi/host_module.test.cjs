// The module in Node.js, a Node-API host. KESTRUN_LIBRARY names the shared library.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');
const { Worker } = require('node:worker_threads');

const library = path.resolve(process.env.KESTRUN_LIBRARY);

function load() {
  const loaded = { exports: {} };
  process.dlopen(loaded, library);
  return loaded.exports;
}

const { add } = load();

test('the exports are exactly one function, add', () => {
  const exports = load();
  assert.deepEqual(Object.getOwnPropertyNames(exports), ['add']);
  assert.deepEqual(Object.getOwnPropertySymbols(exports), []);
  assert.equal(typeof exports.add, 'function');
});

test('add can not be enumerated, replaced or removed', () => {
  const exports = load();
  const { value, ...attributes } = Object.getOwnPropertyDescriptor(exports, 'add');
  assert.equal(typeof value, 'function');
  assert.deepEqual(attributes, { writable: false, enumerable: false, configurable: false });
  assert.deepEqual(Object.keys(exports), []);
  assert.throws(() => { exports.add = () => 0; }, TypeError);
  assert.throws(() => { delete exports.add; }, TypeError);
});

test('the exports object that the host gave is the one that is filled', () => {
  const own = { existing: 1 };
  const loaded = { exports: own };
  process.dlopen(loaded, library);
  assert.equal(loaded.exports, own);
  assert.equal(own.existing, 1);
});

test('add returns the sum in double precision', () => {
  const rows = [
    [2, 3, 5],
    [0.1, 0.2, 0.30000000000000004],
    [-1.5, 1.5, 0],
    [Number.MAX_SAFE_INTEGER, 1, 2 ** 53],
    [Number.MAX_VALUE, Number.MAX_VALUE, Infinity],
    [Number.MIN_VALUE, 0, 5e-324],
    [Infinity, -Infinity, NaN],
    [NaN, 1, NaN],
    [-0, -0, -0],
  ];
  for (const [first, second, sum] of rows) {
    assert.ok(Object.is(add(first, second), sum), `${first} + ${second} gave ${add(first, second)}`);
  }
});

test('a third argument and the receiver are not looked at', () => {
  assert.equal(add(2, 3, 100), 5);
  assert.equal(add(2, 3, { valueOf() { throw new Error('looked at'); } }), 5);
  assert.equal(add.call(null, 2, 3), 5);
  assert.equal(add.apply({ a: 1 }, [2, 3]), 5);
});

test('a missing argument counts as 0', () => {
  assert.equal(add(), 0);
  assert.equal(add(1), 1);
});

test('an argument that is not a number counts as 0 and nothing is thrown', () => {
  const notNumbers = [undefined, null, true, '1', '', 1n, Symbol('1'), {}, [1], () => 1, new Number(1), new Date(1)];
  for (const value of notNumbers) {
    assert.equal(add(value, 2), 2, `first: ${typeof value}`);
    assert.equal(add(2, value), 2, `second: ${typeof value}`);
    assert.equal(add(value, value), 0, `both: ${typeof value}`);
  }
  assert.equal(add({ valueOf: () => 1 }, 2), 2);
});

test('loading again gives a module that works beside the first one', () => {
  const again = load();
  assert.equal(again.add(2, 3), 5);
  assert.equal(add(4, 5), 9);
});

test('a copy named .node is loaded by require and by an ECMAScript module', async (context) => {
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-'));
  context.after(() => fs.rmSync(directory, { recursive: true }));
  const copy = path.join(directory, 'kestrun.node');
  fs.copyFileSync(library, copy);
  assert.equal(require(copy).add(2, 3), 5);

  const source = `
    import { createRequire } from 'node:module';
    export const sum = createRequire('file:///')(${JSON.stringify(copy)}).add(2, 3);`;
  const { sum } = await import(`data:text/javascript,${encodeURIComponent(source)}`);
  assert.equal(sum, 5);
});

test('bound at once or late it loads just the same', () => {
  const { RTLD_LAZY, RTLD_NOW } = os.constants.dlopen;
  for (const mode of [RTLD_LAZY, RTLD_NOW]) {
    const loaded = { exports: {} };
    process.dlopen(loaded, library, mode);
    assert.equal(loaded.exports.add(2, 3), 5);
  }
});

// What a worker thread does: load twice, add with both, tell the sums.
const workerSource = `
  const { parentPort, workerData } = require('node:worker_threads');
  const sums = [0, 1].map(() => {
    const loaded = { exports: {} };
    process.dlopen(loaded, workerData);
    return loaded.exports.add(0.1, 0.2);
  });
  parentPort.postMessage(sums);`;

function sumsOfOneWorker() {
  return new Promise((resolve, reject) => {
    const worker = new Worker(workerSource, { eval: true, workerData: library });
    let sums;
    worker.on('message', (message) => { sums = message; });
    worker.on('error', reject);
    worker.on('exit', () => resolve(sums));
  });
}

test('worker threads load it twice each, at the same time and one after the other', async () => {
  const expected = [0.30000000000000004, 0.30000000000000004];
  const together = await Promise.all([1, 2, 3, 4].map(sumsOfOneWorker));
  for (const sums of together) assert.deepEqual(sums, expected);
  assert.deepEqual(await sumsOfOneWorker(), expected);
  assert.equal(add(2, 3), 5);
});
