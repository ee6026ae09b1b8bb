'use strict'

// Reads: what they see, in which order, from which moment.

const assert = require('node:assert/strict')
const test = require('node:test')
const { openLevel, entriesOf } = require('./support.js')

const numbered = (count) => Array.from({ length: count }, (_, i) => `key ${String(i).padStart(5, '0')}`)

const fill = async function (db, keys) {
  await db.batch(keys.map((key) => ({ type: 'put', key, value: `value of ${key}` })))
}

test('a write of the same tick stays unseen', async (t) => {
  const db = await openLevel(t)
  await db.put('a', 'old')
  const reads = [db.get('a'), db.getMany(['a', 'b']), db.has('b'), db.hasMany(['a', 'b']), db.iterator().all(),
    db.keys().all(), db.values().all()]
  const iterator = db.iterator()
  const writes = [db.put('a', 'new'), db.put('b', 'new')]
  assert.deepEqual(await Promise.all(reads),
    ['old', ['old', undefined], false, [true, false], [['a', 'old']], ['a'], ['old']])
  await Promise.all(writes)
  assert.deepEqual(await iterator.all(), [['a', 'old']])
  assert.deepEqual(await entriesOf(db), [['a', 'new'], ['b', 'new']])
})

test('a write of another handle in the same tick stays unseen', async (t) => {
  const { KestrunLevel } = require('..')
  const db = await openLevel(t)
  const other = new KestrunLevel(db.location)
  await other.open()
  t.after(() => other.close())
  await db.put('a', 'old')
  for (let i = 0; i < 100; i++) {
    const [read] = await Promise.all([db.get('a'), other.put('a', `new ${i}`)])
    assert.equal(read, i === 0 ? 'old' : `new ${i - 1}`)
  }
})

test('an awaited write is seen by every read after it', async (t) => {
  const db = await openLevel(t)
  for (let i = 0; i < 200; i++) {
    await db.put('a', String(i))
    assert.equal(db.getSync('a'), String(i))
    assert.equal(await db.get('a'), String(i))
  }
})

test('writes of a handle take effect in the order of the calls', async (t) => {
  const db = await openLevel(t)
  const writes = []
  for (let i = 0; i < 500; i++) {
    writes.push(db.put('a', String(i)))
    if (i % 7 === 0) writes.push(db.del('a'))
    if (i % 50 === 0) writes.push(db.clear())
  }
  writes.push(db.put('a', 'last'))
  await Promise.all(writes)
  assert.deepEqual(await entriesOf(db), [['a', 'last']])
})

test('an empty value is not a missing one', async (t) => {
  const db = await openLevel(t)
  await db.put('empty', '')
  await db.put('bytes', Buffer.alloc(0), { valueEncoding: 'buffer' })
  assert.equal(await db.get('empty'), '')
  assert.equal(db.getSync('empty'), '')
  assert.deepEqual(await db.getMany(['empty', 'missing', 'bytes']), ['', undefined, ''])
  assert.deepEqual(await db.hasMany(['empty', 'missing']), [true, false])
  assert.deepEqual(await db.get('bytes', { valueEncoding: 'view' }), new Uint8Array(0))
  assert.deepEqual(await entriesOf(db), [['bytes', ''], ['empty', '']])
})

test('values come in the encoding that was asked for, byte for byte', async (t) => {
  const db = await openLevel(t)
  const bytes = Buffer.from(Array.from({ length: 256 }, (_, i) => i))
  await db.put('bytes', bytes, { valueEncoding: 'buffer' })
  const buffer = await db.get('bytes', { valueEncoding: 'buffer' })
  assert.ok(Buffer.isBuffer(buffer))
  assert.deepEqual(buffer, bytes)
  const view = await db.get('bytes', { valueEncoding: 'view' })
  assert.equal(view.constructor, Uint8Array)
  assert.deepEqual(view, new Uint8Array(bytes))

  const texts = ['', 'ascii', 'ä', '日本語', '😀', 'a'.repeat(250) + '😀', 'a'.repeat(300), 'ü'.repeat(300), '\0nul\0']
  for (const text of texts) {
    await db.put(text, text)
    assert.equal(await db.get(text), text)
    assert.deepEqual(await db.get(text, { valueEncoding: 'buffer' }), Buffer.from(text))
  }
  // Half a character has no bytes of its own.
  await db.put('half \uD800', 'half \uDC00')
  assert.equal(await db.get('half \uFFFD'), 'half \uFFFD')
})

test('what was handed in may be changed after the call', async (t) => {
  const db = await openLevel(t)
  const key = Buffer.from('key')
  const value = Buffer.from('value')
  const options = { keyEncoding: 'buffer', valueEncoding: 'buffer' }
  const put = db.put(key, value, options)
  key.fill('x')
  value.fill('y')
  await put
  assert.deepEqual(await entriesOf(db), [['key', 'value']])

  // A view of a part of something larger, and one that is not of bytes.
  const words = new Uint16Array([1, 2, 3]).subarray(1)
  const identity = { name: 'identity', format: 'view', encode: (x) => x, decode: (x) => x }
  await db.put('words', words, { valueEncoding: identity })
  assert.deepEqual(await db.get('words', { valueEncoding: 'view' }), new Uint8Array([2, 0, 3, 0]))
  await db.put('dataview', new DataView(new ArrayBuffer(8), 2, 3), { valueEncoding: identity })
  assert.deepEqual(await db.get('dataview', { valueEncoding: 'view' }), new Uint8Array(3))
})

test('next, nextv and all share one walk, whatever was read ahead', async (t) => {
  const db = await openLevel(t)
  const keys = numbered(3000)
  await fill(db, keys)
  for (const reverse of [false, true]) {
    const expected = reverse ? keys.toReversed?.() ?? [...keys].reverse() : keys
    const iterator = db.keys({ reverse })
    const walked = []
    for (const size of [1, 2, 3, 500, 1, 7]) {
      walked.push(await iterator.next())
      const several = await iterator.nextv(size)
      assert.ok(several.length >= 1 && several.length <= size)
      walked.push(...several)
    }
    walked.push(...await iterator.all())
    assert.deepEqual(walked, expected)
  }
})

test('an empty nextv means the end, and large values do not end a walk early', async (t) => {
  const db = await openLevel(t)
  const keys = numbered(40)
  for (const key of keys) await db.put(key, key.repeat(20000))
  const iterator = db.iterator()
  let count = 0
  for (let entries; (entries = await iterator.nextv(40)).length > 0;) {
    for (const [key, value] of entries) {
      assert.equal(key, keys[count++])
      assert.equal(value.length, 180000)
    }
  }
  assert.equal(count, 40)
  assert.deepEqual(await iterator.nextv(1), [])
  await iterator.close()
})

test('limits hold across next, nextv, all and seek', async (t) => {
  const db = await openLevel(t)
  const keys = numbered(100)
  await fill(db, keys)
  for (const limit of [1, 2, 10, 11, 99, 100, 101]) {
    assert.deepEqual(await db.keys({ limit }).all(), keys.slice(0, limit))
    const iterator = db.keys({ limit })
    const walked = []
    for (let key; (key = await iterator.next()) !== undefined;) walked.push(key)
    assert.deepEqual(walked, keys.slice(0, limit))
    // Beyond the limit a seek opens nothing.
    iterator.seek(keys[0])
    assert.equal(await iterator.next(), limit > keys.length ? keys[0] : undefined)
    await iterator.close()
  }
  assert.deepEqual(await db.keys({ limit: 0 }).all(), [])
})

test('seek drops what was read ahead and works after the end', async (t) => {
  const db = await openLevel(t)
  const keys = numbered(300)
  await fill(db, keys)
  for (const reverse of [false, true]) {
    const iterator = db.iterator({ reverse })
    await iterator.nextv(100)
    await iterator.next()
    iterator.seek(keys[150])
    assert.equal((await iterator.next())[0], keys[150])
    assert.equal((await iterator.next())[0], keys[reverse ? 149 : 151])
    while (await iterator.next() !== undefined);
    iterator.seek(keys[17] + ' and a half')
    assert.equal((await iterator.nextv(1))[0][0], keys[reverse ? 17 : 18])
    iterator.seek('')
    assert.equal((await iterator.next())?.[0], reverse ? undefined : keys[0])
    await iterator.close()
  }
})

test('empty bounds count', async (t) => {
  const db = await openLevel(t)
  await db.batch([{ type: 'put', key: '', value: 'empty' }, { type: 'put', key: 'a', value: '1' }])
  assert.deepEqual(await db.keys({ gte: '' }).all(), ['', 'a'])
  assert.deepEqual(await db.keys({ gt: '' }).all(), ['a'])
  assert.deepEqual(await db.keys({ lte: '' }).all(), [''])
  assert.deepEqual(await db.keys({ lt: '' }).all(), [])
  assert.deepEqual(await db.keys({ lte: '', reverse: true }).all(), [''])
  assert.deepEqual(await db.keys({ gt: '', lt: '' }).all(), [])
  await db.clear({ lt: '' })
  assert.deepEqual(await db.keys().all(), ['', 'a'])
  await db.clear({ lte: '' })
  assert.deepEqual(await db.keys().all(), ['a'])
})

test('clear honours limit, reverse, range and snapshot', async (t) => {
  const db = await openLevel(t)
  const keys = numbered(20)
  const remaining = async (options) => {
    await fill(db, keys)
    await db.clear(options)
    return db.keys().all()
  }
  assert.deepEqual(await remaining({ limit: 5 }), keys.slice(5))
  assert.deepEqual(await remaining({ limit: 5, reverse: true }), keys.slice(0, 15))
  assert.deepEqual(await remaining({ limit: 0 }), keys)
  assert.deepEqual(await remaining({ gte: keys[3], lt: keys[6] }), [...keys.slice(0, 3), ...keys.slice(6)])
  assert.deepEqual(await remaining({ gt: keys[3], lte: keys[6] }), [...keys.slice(0, 4), ...keys.slice(7)])
  assert.deepEqual(await remaining({ gt: keys[3], limit: 2 }), [...keys.slice(0, 4), ...keys.slice(6)])
  assert.deepEqual(await remaining({ lt: keys[9], limit: 2, reverse: true }), [...keys.slice(0, 7), ...keys.slice(9)])
  assert.deepEqual(await remaining({ gt: keys[6], lt: keys[3] }), keys)
  assert.deepEqual(await remaining({}), [])

  await fill(db, keys.slice(0, 10))
  const snapshot = db.snapshot()
  await fill(db, keys.slice(5))
  await db.clear({ snapshot })
  assert.deepEqual(await db.keys().all(), keys.slice(10))
  await snapshot.close()
})

test('a clear with a limit of more than the log holds is done in steps', async (t) => {
  const db = await openLevel(t, { logSize: 4096 })
  const keys = numbered(200)
  for (const key of keys) await db.put(key, 'v')
  await db.clear({ limit: 150 })
  assert.deepEqual(await db.keys().all(), keys.slice(150))
})

test('explicit snapshots serve every read, in sublevels too, until they are closed', async (t) => {
  const db = await openLevel(t)
  const sublevel = db.sublevel('sub')
  await db.put('a', '1')
  await sublevel.put('b', '2')
  const snapshot = db.snapshot()
  await db.put('a', 'later')
  await sublevel.del('b')
  await db.flush()
  assert.equal(await db.get('a', { snapshot }), '1')
  assert.equal(db.getSync('a', { snapshot }), '1')
  assert.deepEqual(await db.getMany(['a'], { snapshot }), ['1'])
  assert.equal(await sublevel.has('b', { snapshot }), true)
  assert.equal(await sublevel.has('b'), false)
  assert.deepEqual(await sublevel.iterator({ snapshot }).all(), [['b', '2']])
  const inFlight = [db.get('a', { snapshot }), db.has('a', { snapshot })]
  await snapshot.close()
  assert.deepEqual(await Promise.all(inFlight), ['1', true])
  await assert.rejects(db.get('a', { snapshot }), { code: 'LEVEL_SNAPSHOT_NOT_OPEN' })
})

test('an aborted read rejects at once, and the iterator still closes', async (t) => {
  const db = await openLevel(t)
  await fill(db, numbered(2000))
  for (const method of ['next', 'all', 'nextv']) {
    const controller = new AbortController()
    const iterator = db.iterator({ signal: controller.signal })
    const read = method === 'nextv' ? iterator.nextv(2000) : iterator[method]()
    controller.abort()
    await assert.rejects(read, { code: 'LEVEL_ABORTED', name: 'AbortError' })
    await assert.rejects(iterator.next(), { code: method === 'all' ? 'LEVEL_ITERATOR_NOT_OPEN' : 'LEVEL_ABORTED' })
    await iterator.close()
  }
})

test('hundreds of reads and writes at once settle', async (t) => {
  const db = await openLevel(t)
  const keys = numbered(1000)
  await Promise.all(keys.map((key) => db.put(key, key)))
  const results = await Promise.all(keys.map((key) => db.get(key)))
  assert.deepEqual(results, keys)
  assert.deepEqual(await db.getMany(keys), keys)
})
