'use strict'

// Options, and what is refused with which error.

const assert = require('node:assert/strict')
const fs = require('node:fs')
const path = require('node:path')
const test = require('node:test')
const { KestrunLevel } = require('..')
const { newLocation, openLevel, entriesOf } = require('./support.js')

// The cause of a failed open.
const causeOf = async function (db, options) {
  const err = await db.open(options).then(() => assert.fail('the store was opened'), (err) => err)
  assert.equal(err.code, 'LEVEL_DATABASE_NOT_OPEN')
  assert.equal(db.status, 'closed')
  return err.cause
}

test('the constructor touches nothing', async (t) => {
  const db = new KestrunLevel(newLocation())
  assert.equal(fs.existsSync(db.location), false)
  await db.close()
  assert.equal(fs.existsSync(db.location), false)
})

test('a location is the path of a directory', () => {
  for (const location of [undefined, null, '', 7, {}, Buffer.from('x'), 'a\0b']) {
    assert.throws(() => new KestrunLevel(location), TypeError)
  }
})

test('a missing store is made by default only', async (t) => {
  const db = new KestrunLevel(newLocation(), { createIfMissing: false })
  const cause = await causeOf(db)
  assert.equal(cause.code, 'KESTRUN_STORE_MISSING')
  assert.equal(cause.status, 5)
  assert.equal(cause.statusName, 'kStatusStoreMissing')
  assert.match(cause.message, /does not exist/)
  assert.ok(cause.message.includes(db.location))
  assert.equal(fs.existsSync(db.location), false)

  // The options of open() win, and a failed open can be repeated.
  await db.open({ createIfMissing: true })
  await db.put('a', '1')
  await db.close()
  assert.equal((await causeOf(db, { errorIfExists: true })).code, 'KESTRUN_STORE_EXISTS')
  await db.open()
  assert.equal(await db.get('a'), '1')
  await db.close()
})

test('a location that can not be a store tells why', async (t) => {
  const file = newLocation()
  fs.writeFileSync(file, 'not a store')
  assert.equal((await causeOf(new KestrunLevel(file))).code, 'KESTRUN_NOT_A_STORE')
  assert.equal(fs.readFileSync(file, 'utf8'), 'not a store')

  const orphan = path.join(newLocation(), 'no', 'parent')
  assert.equal((await causeOf(new KestrunLevel(orphan))).code, 'LEVEL_IO_ERROR')
})

test('options of the wrong type or size fail the open and change nothing', async (t) => {
  const rows = [
    [{ logSize: '4096' }, TypeError],
    [{ logSize: 4096n }, TypeError],
    [{ logSize: 128 }, RangeError],
    [{ logSize: 0 }, RangeError],
    [{ logSize: -4096 }, RangeError],
    [{ logSize: 4096.5 }, RangeError],
    [{ logSize: 2 ** 32 }, RangeError],
    [{ logSize: 2 ** 32 + 4096 }, RangeError],
    [{ logSize: Infinity }, RangeError],
    [{ logSize: NaN }, RangeError],
    [{ busyTimeout: -1 }, RangeError],
    [{ busyTimeout: NaN }, RangeError],
    [{ busyTimeout: '5' }, TypeError],
    [{ autoCompact: 'yes' }, TypeError]
  ]
  for (const [options, type] of rows) {
    const db = new KestrunLevel(newLocation(), options)
    const cause = await causeOf(db)
    assert.ok(cause instanceof type, `${Object.keys(options)}: ${cause}`)
    assert.match(cause.code, /^ERR_/)
    assert.ok(cause.message.includes(Object.keys(options)[0]))
    assert.equal(fs.existsSync(db.location), false)
  }
})

test('options at the ends of their ranges open the store', async (t) => {
  for (const options of [{ logSize: 129 }, { busyTimeout: 0 }, { busyTimeout: Infinity }, { busyTimeout: 2 ** 40 },
    { autoCompact: false }, { logSize: null, busyTimeout: null, autoCompact: null }]) {
    const db = new KestrunLevel(newLocation(), options)
    await db.open()
    await db.close()
  }
})

test('keys and values of any type are encoded, and what is none is refused with a code', async (t) => {
  const db = await openLevel(t)
  await db.put(24, true)
  assert.equal(await db.get('24'), 'true')
  await assert.rejects(db.put(null, 'v'), { code: 'LEVEL_INVALID_KEY' })
  await assert.rejects(db.put(undefined, 'v'), { code: 'LEVEL_INVALID_KEY' })
  await assert.rejects(db.put('k', null), { code: 'LEVEL_INVALID_VALUE' })
  await assert.rejects(db.get(null), { code: 'LEVEL_INVALID_KEY' })

  // An encoding of a user's own can hand anything to the native side.
  const broken = { name: 'broken', format: 'buffer', encode: () => ({ not: 'bytes' }), decode: (x) => x }
  await assert.rejects(db.put('k', 'v', { keyEncoding: broken }), TypeError)
  await assert.rejects(db.put('k', 'v', { valueEncoding: broken }), TypeError)
  await assert.rejects(db.batch([{ type: 'put', key: 'k', value: 'v', valueEncoding: broken }]), TypeError)
  assert.throws(() => db.iterator({ gte: 'k', keyEncoding: broken }), TypeError)
  assert.deepEqual(await entriesOf(db), [['24', 'true']])
})

test('a key may have 65535 bytes and no more', async (t) => {
  const db = await openLevel(t)
  const longest = 'k'.repeat(65535)
  await db.put(longest, 'v')
  assert.equal(await db.get(longest), 'v')
  const tooLong = longest + 'k'
  for (const call of [() => db.put(tooLong, 'v'), () => db.del(tooLong), () => db.get(tooLong), () => db.has(tooLong),
    () => db.getMany(['a', tooLong]), () => db.hasMany([tooLong]),
    () => db.batch([{ type: 'put', key: 'a', value: '1' }, { type: 'del', key: tooLong }]),
    () => db.batch().put('a', '1').put(tooLong, 'v').write()]) {
    await assert.rejects(call(), { code: 'LEVEL_INVALID_KEY' })
  }
  assert.throws(() => db.getSync(tooLong), { code: 'LEVEL_INVALID_KEY' })
  assert.equal(await db.get('a'), undefined)

  // As a bound a longer key is a place among the others.
  assert.deepEqual(await db.keys({ gte: tooLong }).all(), [])
  assert.deepEqual(await db.keys({ lt: tooLong }).all(), [longest])
  assert.deepEqual(await db.keys({ gt: longest.slice(1), lte: tooLong, reverse: true }).all(), [longest])
  const iterator = db.keys()
  iterator.seek(tooLong)
  assert.equal(await iterator.next(), undefined)
  await iterator.close()
  await db.clear({ gt: tooLong })
  assert.equal(await db.get(longest), 'v')
  await db.clear({ lt: tooLong })
  assert.equal(await db.get(longest), undefined)
})

test('what does not fit into the log is refused with a code, and nothing is lost', async (t) => {
  const db = await openLevel(t, { logSize: 4096 })
  await db.put('small', 'stays')
  await assert.rejects(db.put('large', 'v'.repeat(4096)), { code: 'KESTRUN_WAL_FULL', status: 3330 })
  await assert.rejects(db.batch([
    { type: 'del', key: 'small' },
    { type: 'put', key: 'large', value: 'v'.repeat(2048) },
    { type: 'put', key: 'larger', value: 'v'.repeat(2048) }
  ]), { code: 'KESTRUN_WAL_FULL' })
  assert.deepEqual(await entriesOf(db), [['small', 'stays']])
})

test('times to live are checked and never wrap', async (t) => {
  const db = await openLevel(t)
  for (const ttl of [0, -1, NaN, -Infinity]) {
    await assert.rejects(db.put('k', 'v', { ttl }), RangeError)
    await assert.rejects(db.batch([{ type: 'put', key: 'k', value: 'v', ttl }]), RangeError)
    await assert.rejects(db.batch([{ type: 'put', key: 'k', value: 'v' }], { ttl }), RangeError)
    await assert.rejects(db.batch().put('k', 'v', { ttl }).write(), RangeError)
  }
  for (const ttl of ['60', 60n, {}, true]) await assert.rejects(db.put('k', 'v', { ttl }), TypeError)
  assert.equal(await db.get('k'), undefined)

  // 2 ** 32 + 1 would be a second if it wrapped.
  for (const ttl of [null, undefined, 1e-9, 4294967295, 2 ** 32, 2 ** 32 + 1, Number.MAX_VALUE, Infinity]) {
    await db.put(`ttl ${ttl}`, 'v', { ttl })
    assert.equal(await db.get(`ttl ${ttl}`), 'v')
  }
})

test('a snapshot of another database and a sublevel of one are refused', async (t) => {
  const db = await openLevel(t)
  const other = await openLevel(t)
  const snapshot = other.snapshot()
  await assert.rejects(db.get('k', { snapshot }), TypeError)
  assert.throws(() => db.getSync('k', { snapshot }), TypeError)
  await assert.rejects(db.getMany(['k'], { snapshot }), TypeError)
  await assert.rejects(db.has('k', { snapshot }), TypeError)
  await assert.rejects(db.clear({ snapshot }), TypeError)
  assert.throws(() => db.iterator({ snapshot }), TypeError)
  await assert.rejects(db.get('k', { snapshot: { ref () {}, unref () {} } }), TypeError)
  await snapshot.close()

  const foreign = other.sublevel('foreign')
  await assert.rejects(db.batch([{ type: 'put', key: 'k', value: 'v', sublevel: foreign }]), TypeError)
  assert.deepEqual(await entriesOf(db), [])
})

test('nothing works after close, and closing twice is one', async () => {
  const db = new KestrunLevel(newLocation())
  await db.put('k', 'v')
  await db.close()
  await db.close()
  const code = 'LEVEL_DATABASE_NOT_OPEN'
  for (const call of [() => db.get('k'), () => db.getMany(['k']), () => db.has('k'), () => db.put('k', 'v'),
    () => db.del('k'), () => db.batch([{ type: 'del', key: 'k' }]), () => db.clear(), () => db.flush(),
    () => db.compact(), () => db.sync(), () => db.checkpoint(newLocation())]) {
    await assert.rejects(call(), { code })
  }
  for (const call of [() => db.getSync('k'), () => db.iterator(), () => db.snapshot(), () => db.batch()]) {
    assert.throws(call, { code })
  }
  await db.open()
  assert.equal(await db.get('k'), 'v')
  await Promise.all([db.close(), db.close()])
})

test('the store\'s own operations wait for the store to open', async (t) => {
  const db = new KestrunLevel(newLocation())
  t.after(() => db.close())
  const flushed = db.flush()
  assert.equal(db.status, 'opening')
  await flushed
  await db.put('k', 'v')
  await db.flush()
  await db.compact()
  await db.sync()
  const copy = newLocation()
  await db.checkpoint(copy)
  await assert.rejects(db.checkpoint(copy), { code: 'KESTRUN_STORE_EXISTS' })
  for (const directory of [undefined, '', 7]) await assert.rejects(db.checkpoint(directory), TypeError)
  const copied = new KestrunLevel(copy, { createIfMissing: false })
  assert.deepEqual(await entriesOf(copied), [['k', 'v']])
  await copied.close()
})
