'use strict'

// Keys that a store does not take as they are: escaped, in order, the same after a flush and a reopen.

const assert = require('node:assert/strict')
const test = require('node:test')
const { KestrunLevel } = require('..')
const native = require('../lib/native.js')
const { newLocation, openLevel } = require('./support.js')

const options = { keyEncoding: 'buffer', valueEncoding: 'utf8' }
const bytes = (...values) => Buffer.from(values)

// Every first byte alone and before bytes that matter to the escaping, and the empty key.
const oddKeys = function () {
  const keys = [bytes()]
  for (let first = 0; first < 256; first++) {
    keys.push(bytes(first))
    for (const second of [0x00, 0x01, 0x41, 0xFD, 0xFE, 0xFF]) keys.push(bytes(first, second), bytes(first, second, 0))
  }
  return keys.sort(Buffer.compare)
}

// The keys of the store as a C++ program has them, in hexadecimal digits.
const storedKeys = function (location) {
  const store = native.create(true)
  native.openSync(store, location, 1 << 20, false, false, true, 5000)
  const iterator = native.iterator(store, undefined, false, undefined, false, false, 2, 0, undefined)
  const keys = native.iteratorReadSync(iterator, 10000, 1 << 30)
  assert.equal(keys.pop(), true)
  native.iteratorClose(iterator)
  native.closeSync(store)
  return keys.map((key) => key.toString('hex'))
}

// What the native functions make of keys of a C++ program.
const putStored = function (location, ...keys) {
  const store = native.create(true)
  native.openSync(store, location, 1 << 20, false, false, true, 5000)
  for (const key of keys) native.putSync(store, key, 'stored', 100)
  native.closeSync(store)
}

test('odd keys keep their order and their bytes, through flush, compaction and reopen', async () => {
  const keys = oddKeys()
  const db = new KestrunLevel(newLocation(), options)
  const check = async (when) => {
    assert.deepEqual(await db.keys().all(), keys, when)
    assert.deepEqual(await db.keys({ reverse: true }).all(), [...keys].reverse(), when)
    assert.deepEqual(await db.getMany(keys), keys.map((key) => key.toString('hex')), when)
  }
  // In an order that is not theirs.
  await db.batch(keys.map((_, i) => keys[(i * 7) % keys.length]).map((key) => (
    { type: 'put', key, value: key.toString('hex') })))
  await check('in the log')
  await db.flush()
  await check('in a block')
  await db.compact()
  await check('compacted')
  await db.close()
  await db.open()
  await check('reopened')

  for (let i = 0; i < keys.length; i += 97) {
    assert.deepEqual(await db.keys({ gte: keys[i] }).all(), keys.slice(i))
    assert.deepEqual(await db.keys({ gt: keys[i] }).all(), keys.slice(i + 1))
    assert.deepEqual(await db.keys({ lte: keys[i] }).all(), keys.slice(0, i + 1))
    assert.deepEqual(await db.keys({ lt: keys[i] }).all(), keys.slice(0, i))
    const iterator = db.keys()
    iterator.seek(keys[i])
    assert.deepEqual(await iterator.next(), keys[i])
    await iterator.close()
  }
  await db.batch(keys.filter((_, i) => i % 2 === 0).map((key) => ({ type: 'del', key })))
  assert.deepEqual(await db.keys().all(), keys.filter((_, i) => i % 2 === 1))
  await db.close()
})

test('the stored bytes are the documented ones', async () => {
  const rows = [
    ['', '00'], ['00', '0000'], ['0078', '000078'], ['fe', 'fefe'], ['fe78', 'fefe78'], ['ff', 'feff'],
    ['ff78', 'feff78'], ['ffff', 'feffff'], ['01', '01'], ['fd', 'fd'], ['fdff', 'fdff'], ['7800fe', '7800fe']
  ]
  const db = new KestrunLevel(newLocation(), options)
  await db.batch(rows.map(([key]) => ({ type: 'put', key: Buffer.from(key, 'hex'), value: key })))
  await db.close()
  assert.deepEqual(storedKeys(db.location), rows.map(([, stored]) => stored).sort())
})

test('ordinary keys are shared with programs in other languages, and their odd ones are not seen', async () => {
  const db = new KestrunLevel(newLocation(), options)
  await db.put(Buffer.from('from script'), 'v')
  await db.close()
  assert.deepEqual(storedKeys(db.location), [Buffer.from('from script').toString('hex')])
  putStored(db.location, 'from C++', bytes(0x00, 0x41), bytes(0xFE), bytes(0xFE, 0x41))
  await db.open()
  assert.deepEqual((await db.keys().all()).map(String), ['from C++', 'from script'])
  assert.equal((await db.keys({ reverse: true, limit: 1 }).all()).toString(), 'from script')
  assert.equal(await db.get(Buffer.from('from C++')), 'stored')
  for (const key of [bytes(0x00, 0x41), bytes(0xFE), bytes(0xFE, 0x41), bytes(0x41)]) {
    assert.equal(await db.get(key), undefined)
  }
  // They are within the whole all the same.
  await db.clear()
  await db.close()
  assert.deepEqual(storedKeys(db.location), [])
})

test('an escaped key has a byte less room', async (t) => {
  const db = await openLevel(t, options)
  for (const first of [0x00, 0xFE, 0xFF]) {
    const longest = Buffer.alloc(65534, 'k')
    longest[0] = first
    await db.put(longest, 'v')
    assert.equal(await db.get(longest), 'v')
    await assert.rejects(db.put(Buffer.concat([longest, bytes(0)]), 'v'), { code: 'LEVEL_INVALID_KEY' })
  }
})
