'use strict'

// Several processes on one store, and processes that are killed.

const assert = require('node:assert/strict')
const { spawn } = require('node:child_process')
const { once } = require('node:events')
const fs = require('node:fs')
const test = require('node:test')
const { KestrunLevel } = require('..')
const { newLocation, openLevel, runScript, startScript } = require('./support.js')

test('processes see each other\'s writes', async (t) => {
  const db = await openLevel(t)
  await db.put('question', '6 * 7')
  await runScript(`
    ;(async () => {
      const db = new KestrunLevel(args[0])
      await db.put('answer', String(eval(await db.get('question'))))
      await db.close()
    })()`, db.location)
  assert.equal(await db.get('answer'), '42')
})

test('processes that write at once lose nothing of each other', async (t) => {
  const db = await openLevel(t, { logSize: 32768 })
  const write = `
    ;(async () => {
      const db = new KestrunLevel(args[0], { logSize: 32768 })
      for (let i = 0; i < 300; i++) {
        await db.batch([{ type: 'put', key: args[1] + ' a ' + i, value: 'v'.repeat(100) },
          { type: 'put', key: args[1] + ' b ' + i, value: 'v'.repeat(100) }])
      }
    })()`
  const own = (async () => { for (let i = 0; i < 300; i++) await db.put(`own ${i}`, 'v'.repeat(100)) })()
  await Promise.all([runScript(write, db.location, 'one'), runScript(write, db.location, 'two'), own])
  assert.equal((await db.keys().all()).length, 1500)
  await db.compact()
  assert.equal((await db.keys().all()).length, 1500)
})

test('a process killed in the middle of its writes has written whole batches only, and all it was told of', async () => {
  for (let round = 0; round < 10; round++) {
    const location = newLocation()
    const writer = startScript(`
      const fs = require('node:fs')
      ;(async () => {
        const db = new KestrunLevel(args[0], { logSize: 16384 })
        for (let i = 0; ; i++) {
          await db.batch([0, 1, 2, 3].map((part) => ({ type: 'put', key: i + ' ' + part, value: 'v'.repeat(200) })))
          fs.writeSync(1, i + '\\n')
        }
      })()`, location)
    await writer.wrote(String(20 * round))
    writer.child.kill('SIGKILL')
    const { stdout } = await writer.ended
    const acknowledged = stdout.split('\n').length - 1

    const db = new KestrunLevel(location, { createIfMissing: false })
    const parts = new Map()
    for (const key of await db.keys().all()) {
      const [batch] = key.split(' ')
      parts.set(batch, (parts.get(batch) ?? 0) + 1)
    }
    assert.ok(parts.size === acknowledged || parts.size === acknowledged + 1, `${parts.size}, told ${acknowledged}`)
    for (const [batch, number] of parts) assert.equal(number, 4, `batch ${batch}`)
    await db.put('after', 'the kill')
    await db.close()
  }
})

test('a lock that another process keeps is given up with LEVEL_LOCKED', async (t) => {
  const db = await openLevel(t, { busyTimeout: 50 })
  await db.put('key', 'value')
  // The system's locks belong to a process, whatever its language.
  const holder = spawn('python3', ['-c', `
import fcntl, glob, sys
files = [open(name, "r+b") for name in glob.glob(sys.argv[1] + "/*")]
for file in files: fcntl.lockf(file, fcntl.LOCK_EX)
print(len(files), flush=True)
sys.stdin.read()`, db.location], { stdio: ['pipe', 'pipe', 'inherit'] })
  t.after(() => holder.kill('SIGKILL'))
  const [held] = await once(holder.stdout, 'data')
  assert.ok(Number(held) >= 2, 'the log and the manifest are locked')

  const locked = { code: 'LEVEL_LOCKED', statusName: 'kStatusLockFailed' }
  await assert.rejects(db.put('key', 'other'), locked)
  await assert.rejects(db.batch([{ type: 'del', key: 'key' }]), locked)
  await assert.rejects(db.get('key'), locked)
  assert.throws(() => db.getSync('key'), locked)
  assert.throws(() => db.iterator(), locked)

  holder.stdin.end()
  await once(holder, 'close')
  assert.equal(await db.get('key'), 'value')
  await db.put('key', 'free again')
  assert.equal(await db.get('key'), 'free again')
})

test('a store that is removed and made anew under a handle does not take the handle with it', async () => {
  const db = new KestrunLevel(newLocation())
  await db.put('before', 'v')
  fs.rmSync(db.location, { recursive: true })
  const anew = new KestrunLevel(db.location)
  await anew.put('after', 'v')
  // Which of the two stores the old handle works on is its own affair; it answers, and the new one is whole.
  await Promise.allSettled([db.put('late', 'v'), db.get('before'), db.keys().all(), db.flush(), db.compact()])
  await db.close()
  await db.open()
  assert.equal(await db.get('after'), 'v')
  await db.close()
  await anew.close()
})
