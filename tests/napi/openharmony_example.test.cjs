// The native module that docs/guide/openharmony.md shows, in Node.js. KESTRUN_EXAMPLE names the module built
// from the page, KESTRUN_LIBRARY the library.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');

function load(file) {
  const loaded = { exports: {} };
  process.dlopen(loaded, path.resolve(file));
  return loaded.exports;
}

// In this order: a host asks a library to register when it loads it itself,
// and not when it comes along with another.
const { add } = load(process.env.KESTRUN_LIBRARY);
const entry = load(process.env.KESTRUN_EXAMPLE);

test('the page\'s module opens, puts, gets and syncs', (context) => {
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-'));
  context.after(() => fs.rmSync(directory, { recursive: true }));

  assert.throws(() => entry.put('early', 'bird'), { code: 'kStatusStoreMissing' });
  assert.throws(() => entry.open(path.join(directory, 'missing', 'settings')), { code: 'kStatusDirectoryFailed' });

  entry.open(path.join(directory, 'settings'));
  entry.put('language', 'nb');
  assert.equal(entry.get('language'), 'nb');
  assert.equal(entry.get('missing'), undefined);
  assert.throws(() => entry.put('', 'no key'), { code: 'kStatusInvalid' });

  entry.sync();
  assert.equal(entry.get('language'), 'nb');
  assert.throws(() => entry.put('now', 'and no longer', 0), { code: 'kStatusInvalid' });
});

test('the library\'s own module works beside it', () => {
  assert.equal(add(2, 3), 5);
});
