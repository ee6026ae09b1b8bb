'use strict'

// abstract-level's own test suite, in full. What KestrunLevel claims in its manifest
// decides which tests there are.

const fs = require('node:fs')
const os = require('node:os')
const path = require('node:path')
const test = require('tape')
const suite = require('abstract-level/test')
const { KestrunLevel } = require('..')

const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-level-'))
process.on('exit', () => fs.rmSync(directory, { recursive: true, force: true }))

let stores = 0

suite({
  test,
  factory (options) {
    return new KestrunLevel(path.join(directory, String(stores++)), options)
  }
})

test('the manifest claims every feature that the suite has tests for', (t) => {
  const { supports } = new KestrunLevel(path.join(directory, 'never opened'))
  for (const feature of ['implicitSnapshots', 'explicitSnapshots', 'snapshots', 'seek', 'has', 'getSync', 'permanence',
    'createIfMissing', 'errorIfExists', 'deferredOpen']) {
    t.is(supports[feature], true, feature)
  }
  t.is(supports.signals.iterators, true, 'signals.iterators')
  for (const encoding of ['buffer', 'utf8', 'view']) t.is(supports.encodings[encoding], true, encoding)
  t.end()
})
