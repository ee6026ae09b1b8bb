'use strict'

// Ends: of databases with work under way, of what nobody holds any more, of threads, of the process.

const assert = require('node:assert/strict')
const fs = require('node:fs')
const path = require('node:path')
const test = require('node:test')
const { Worker } = require('node:worker_threads')
const { KestrunLevel } = require('..')
const { newLocation, openLevel, entriesOf, runScript } = require('./support.js')

const package_ = JSON.stringify(path.join(__dirname, '..'))
const count = (number) => Array.from({ length: number }, (_, i) => `key ${i}`)

test('closing waits for the work under way', async () => {
  const db = new KestrunLevel(newLocation())
  await db.open()
  const puts = count(500).map((key) => db.put(key, 'v'))
  const reads = count(500).map((key) => db.get(key))
  const others = [db.flush(), db.clear({ gte: 'x' }), db.compact()]
  await db.close()
  await Promise.all([...puts, ...reads, ...others])
  await db.open()
  assert.equal((await entriesOf(db)).length, 500)
  await db.close()
})

test('closing ends iterators, snapshots and batches for good', async () => {
  const db = new KestrunLevel(newLocation())
  await db.batch(count(100).map((key) => ({ type: 'put', key, value: 'v' })))
  const iterator = db.iterator()
  const busy = db.keys()
  await iterator.nextv(2)
  const reading = busy.nextv(50)
  const snapshot = db.snapshot()
  const batch = db.batch().put('never', 'written')
  await db.close()
  await reading
  await db.open()
  await assert.rejects(iterator.next(), { code: 'LEVEL_ITERATOR_NOT_OPEN' })
  await assert.rejects(busy.next(), { code: 'LEVEL_ITERATOR_NOT_OPEN' })
  await assert.rejects(db.get('key 1', { snapshot }), { code: 'LEVEL_SNAPSHOT_NOT_OPEN' })
  assert.throws(() => batch.put('a', 'b'), { code: 'LEVEL_BATCH_NOT_OPEN' })
  assert.equal(await db.get('never'), undefined)
  await db.close()
})

test('a database opens and closes again and again, and several handles share it', async (t) => {
  const location = newLocation()
  const first = new KestrunLevel(location)
  const second = new KestrunLevel(location)
  for (let i = 0; i < 20; i++) {
    await first.open()
    await first.put('turn', String(i))
    assert.equal(await second.get('turn'), String(i))
    await first.close()
    await assert.rejects(first.get('turn'), { code: 'LEVEL_DATABASE_NOT_OPEN' })
    assert.equal(await second.get('turn'), String(i))
  }
  await second.close()
})

test('databases that nobody holds any more are collected, and their files closed', async () => {
  const location = newLocation()
  const output = await runScript(`
    const fs = require('node:fs')
    const open = () => fs.readdirSync('/proc/self/fd').filter((fd) => {
      try { return fs.readlinkSync('/proc/self/fd/' + fd).startsWith(args[0]) } catch { return false }
    }).length
    const use = async () => {
      const db = new KestrunLevel(args[0])
      await db.put('key', 'value')
      const iterator = db.iterator()
      await iterator.next()
      db.snapshot()
      db.batch().put('a', 'b')
      db.get('key')
    }
    ;(async () => {
      for (let i = 0; i < 10; i++) await use()
      const most = open()
      for (let i = 0; i < 100 && open() > 0; i++) {
        global.gc()
        await new Promise(setImmediate)
      }
      console.log(most > 0, open())
    })()`, location)
  assert.equal(output, 'true 0\n')
})

test('collecting garbage while work is under way loses nothing', async () => {
  const output = await runScript(`
    ;(async () => {
      let promises = []
      for (let i = 0; i < 300; i++) {
        const db = new KestrunLevel(args[0] + '/' + (i % 3), { createIfMissing: true })
        promises.push(db.put('key ' + i, 'value'), db.get('key ' + i), db.keys().all())
        if (i % 10 === 0) global.gc()
      }
      await Promise.all(promises)
      let found = 0
      for (let i = 0; i < 3; i++) found += (await new KestrunLevel(args[0] + '/' + i).keys().all()).length
      console.log(found)
    })()`, directoryOf(newLocation()))
  assert.equal(output, '300\n')
})

const directoryOf = function (location) {
  fs.mkdirSync(location)
  return location
}

test('an unclosed database does not keep the process alive', async () => {
  const output = await runScript(`
    const db = new KestrunLevel(args[0])
    db.put('key', 'value').then(() => {
      db.iterator()
      db.snapshot()
      console.log('written')
    })`, newLocation())
  assert.equal(output, 'written\n')
})

test('process.exit in the middle of work ends well, and what was acknowledged stays', async () => {
  for (let round = 0; round < 10; round++) {
    const location = newLocation()
    const output = await runScript(`
      const db = new KestrunLevel(args[0], { logSize: 65536 })
      let acknowledged = 0
      ;(async () => {
        await db.open()
        db.snapshot()
        for (let i = 0; ; i++) {
          const value = 'v'.repeat(500)
          Promise.all([db.put('key ' + i, value), db.put('other ' + i, value), db.get('key ' + i),
            db.keys({ limit: 50 }).all()]).catch(() => {})
          await db.put('acknowledged ' + i, value)
          acknowledged++
        }
      })()
      setTimeout(() => {
        require('node:fs').writeSync(1, acknowledged + '\\n')
        process.exit(0)
      }, args[1])`, location, 50 + 30 * round)
    const db = new KestrunLevel(location, { createIfMissing: false })
    const keys = await db.keys({ gte: 'acknowledged', lt: 'b' }).all()
    assert.ok(keys.length >= Number(output), `${keys.length} of ${output}`)
    await db.close()
  }
})

test('worker threads share a store with each other and with this thread', async (t) => {
  const db = await openLevel(t)
  const work = `
    const { workerData, parentPort } = require('node:worker_threads')
    const { KestrunLevel } = require(${package_})
    ;(async () => {
      const db = new KestrunLevel(workerData.location)
      for (let i = 0; i < 200; i++) {
        await db.put('worker ' + workerData.number + ' ' + i, String(i))
        if (await db.get('main ' + i) === undefined) throw new Error('main ' + i + ' is not there')
      }
      await db.close()
      parentPort.postMessage('done')
    })()`
  await db.batch(Array.from({ length: 200 }, (_, i) => ({ type: 'put', key: `main ${i}`, value: 'v' })))
  const workers = [0, 1, 2].map((number) => new Promise((resolve, reject) => {
    const worker = new Worker(work, { eval: true, workerData: { location: db.location, number } })
    worker.on('error', reject)
    worker.on('exit', resolve)
  }))
  assert.deepEqual(await Promise.all(workers), [0, 0, 0])
  assert.equal((await db.keys().all()).length, 800)
})

test('a worker may end at any moment, with its database open and work under way', async (t) => {
  const db = await openLevel(t)
  const work = `
    const { workerData, parentPort } = require('node:worker_threads')
    const { KestrunLevel } = require(${package_})
    const db = new KestrunLevel(workerData.location)
    ;(async () => {
      await db.open()
      db.snapshot()
      const iterator = db.iterator()
      parentPort.postMessage('open')
      for (let i = 0; ; i++) {
        db.get('key ' + i)
        db.keys().all()
        await Promise.all([db.put('a' + i, 'v'), db.put('b' + i, 'v'), db.clear({ gte: 'c' })])
      }
    })()`
  for (let round = 0; round < 8; round++) {
    const worker = new Worker(work, { eval: true, workerData: { location: db.location } })
    await new Promise((resolve, reject) => worker.once('message', resolve).once('error', reject))
    await new Promise((resolve) => setTimeout(resolve, 5 * round))
    await worker.terminate()
    await db.put(`after ${round}`, 'v')
    assert.equal(await db.get(`after ${round}`), 'v')
  }
})

test('the process may end while workers are at work', async () => {
  for (let round = 0; round < 5; round++) {
    await runScript(`
      const { Worker } = require('node:worker_threads')
      const db = new KestrunLevel(args[0])
      const work = \`const { KestrunLevel } = require(${package_})
        const db = new KestrunLevel('\${args[0]}')
        ;(async () => { for (let i = 0; ; i++) await Promise.all([db.put('w' + i, 'v'), db.get('w' + i)]) })()\`
      db.open().then(() => {
        for (let i = 0; i < 2; i++) new Worker(work, { eval: true })
        ;(async () => { for (let i = 0; ; i++) await db.put('m' + i, 'v') })()
        setTimeout(() => process.exit(0), args[1])
      })`, newLocation(), 100 + 20 * round)
  }
})

test('nothing reaches standard output or standard error', async () => {
  assert.equal(await runScript(`
    const fs = require('node:fs')
    ;(async () => {
      const db = new KestrunLevel(args[0], { logSize: 4096 })
      await db.put('key', 'value')
      await db.put('large', 'v'.repeat(5000)).catch(() => {})
      await db.flush()
      await db.close()
      await db.open({ errorIfExists: true }).catch(() => {})
      for (const name of fs.readdirSync(args[0])) fs.truncateSync(args[0] + '/' + name, 10)
      await db.open().catch(() => {})
      await db.get('key').catch(() => {})
    })()`, newLocation()), '')
})
