'use strict'

// Times to live, by every way in which abstract-level hands options on.

const assert = require('node:assert/strict')
const test = require('node:test')
const { openLevel, entriesOf } = require('./support.js')

// An entry is alive in the second in which its time ends, so that after two more it is gone.
const untilGone = async function (db, key) {
  while (await db.has(key)) await new Promise((resolve) => setTimeout(resolve, 50))
}

test('what has expired is gone for every read; what has not is there', async (t) => {
  const db = await openLevel(t)
  const sublevel = db.sublevel('sub', { valueEncoding: 'json' })
  db.hooks.prewrite.add((op, batch) => {
    if (op.key === 'hooked') batch.add({ type: 'put', key: 'by hook', value: 'v', ttl: 1 })
  })
  const short = { ttl: 1 }
  await db.put('put', 'v', short)
  await db.put('put for ever', 'v', { ttl: Infinity })
  await db.batch([{ type: 'put', key: 'batch op', value: 'v', ttl: 1 }, { type: 'put', key: 'batch rest', value: 'v' }])
  await db.batch([{ type: 'put', key: 'batch all', value: 'v' }, { type: 'put', key: 'batch own', value: 'v', ttl: 100 }],
    short)
  await db.batch().put('chained', 'v', short).put('chained rest', 'v').write()
  await db.batch([{ type: 'put', key: 'by sublevel option', value: 1, sublevel, ttl: 1 }])
  await sublevel.put('sub put', 1, short)
  await sublevel.batch([{ type: 'put', key: 'sub batch', value: 1, ttl: 1 }, { type: 'put', key: 'sub rest', value: 2 }])
  await sublevel.batch().put('sub chained', 1, short).write()
  await sublevel.sublevel('deep').put('deep', 1, short)
  await db.put('hooked', 'v')
  // The last that was written is the last to go.
  await db.put('last', 'v', short)
  await untilGone(db, 'last')

  const left = ['!sub!sub rest', 'batch own', 'batch rest', 'chained rest', 'hooked', 'put for ever']
  assert.deepEqual(await db.keys().all(), left)
  for (const key of ['put', 'batch op', 'batch all', 'chained', 'by hook', 'last']) {
    assert.equal(await db.get(key), undefined, key)
    assert.equal(db.getSync(key), undefined, key)
  }
  assert.deepEqual(await sublevel.iterator().all(), [['sub rest', 2]])

  await db.flush()
  await db.compact()
  assert.deepEqual(await db.keys({ reverse: true }).all(), [...left].reverse())
})

test('a walk passes long stretches of expired entries', async (t) => {
  const db = await openLevel(t)
  const keys = Array.from({ length: 5000 }, (_, i) => `key ${String(i).padStart(5, '0')}`)
  await db.batch(keys.slice(1, -1).map((key) => ({ type: 'put', key, value: 'v', ttl: 1 })))
  await db.put(keys[0], 'first')
  await db.put(keys.at(-1), 'last')
  await untilGone(db, keys[1])
  const expected = [[keys[0], 'first'], [keys.at(-1), 'last']]
  const iterator = db.iterator()
  const walked = []
  for (let entries; (entries = await iterator.nextv(1)).length > 0;) walked.push(...entries)
  await iterator.close()
  assert.deepEqual(walked, expected)
  assert.deepEqual(await entriesOf(db, { reverse: true }), [...expected].reverse())
})
