'use strict'

// What operations cost in Node.js, beside classic-level and lmdb.
//
//   npm install --prefix bench --no-package-lock && node bench/bench.js [--rounds N] [--entries N]
//
// Run it in the package's directory that script/build-node makes, on a machine that does nothing else.
// Every run is a process of its own on an empty directory, and the stores take turns, round for round,
// so that what disturbs the machine disturbs all of them. Each figure is the median of its rounds, with
// the best one in brackets.
//
// What a call has written survives the end of the process in all three, and no call waits for the
// disk: lmdb, which by default does, is opened with noSync. Write buffers are of 4 MiB.
// classic-level is opened without compression.

const { execFileSync } = require('node:child_process')
const fs = require('node:fs')
const os = require('node:os')
const path = require('node:path')

const inFlight = 100 // calls of the rows that do not await each one
const batchSize = 1000

// What the rows need of each store. A row of a store that has no such call is left out.
const peers = {
  async kestrun (directory) {
    const { KestrunLevel } = require('..')
    return level(new KestrunLevel(directory))
  },
  async 'classic-level' (directory) {
    const { ClassicLevel } = require('classic-level')
    return level(new ClassicLevel(directory, { compression: false, writeBufferSize: 4 * 1024 * 1024 }))
  },
  async lmdb (directory) {
    const db = require('lmdb').open({ path: directory, noSync: true, encoding: 'string', keyEncoding: 'ordered-binary' })
    return {
      put: (key, value) => db.put(key, value),
      batch: (entries) => db.batch(() => { for (const [key, value] of entries) db.put(key, value) }),
      getSync: (key) => db.get(key),
      getMany: (keys) => db.getMany(keys),
      async walk () {
        let count = 0
        for (const { value } of db.getRange({})) count += value.length > 0
        return count
      },
      async walkKeys () {
        let count = 0
        for (const key of db.getKeys({})) count += key.length > 0
        return count
      },
      close: () => db.close()
    }
  }
}

const level = async function (db) {
  await db.open()
  return {
    put: (key, value) => db.put(key, value),
    batch: (entries) => db.batch(entries.map(([key, value]) => ({ type: 'put', key, value }))),
    get: (key) => db.get(key),
    getSync: (key) => db.getSync(key),
    getMany: (keys) => db.getMany(keys),
    async walk () {
      let count = 0
      for await (const [, value] of db.iterator()) count += value.length > 0
      return count
    },
    async walkAll () {
      return (await db.iterator().all()).length
    },
    async walkKeys () {
      let count = 0
      for await (const key of db.keys()) count += key.length > 0
      return count
    },
    close: () => db.close()
  }
}

// Numbers without a pattern, the same in every run.
const random = function (seed) {
  return () => {
    seed = (seed * 1103515245 + 12345) & 0x7FFFFFFF
    return seed
  }
}

const keyOf = (i) => String(i).padStart(16, '0')

const measure = async function (peer, directory, entries) {
  const store = await peers[peer](directory)
  const next = random(42)
  const value = Array.from({ length: 100 }, () => String.fromCharCode(97 + next() % 26)).join('')
  const figures = {}
  const row = async (name, operations, work) => {
    const begin = process.hrtime.bigint()
    await work()
    figures[name] = Number(process.hrtime.bigint() - begin) / 1000 / operations
  }
  const mustBe = (actual, expected) => {
    if (actual !== expected) throw new Error(`${peer}: ${actual} instead of ${expected}`)
  }
  const together = async (count, call) => {
    for (let i = 0; i < count; i += inFlight) {
      await Promise.all(Array.from({ length: Math.min(inFlight, count - i) }, (_, j) => call(i + j)))
    }
  }

  const few = Math.floor(entries / 10)
  await row('batch of 1000', entries, async () => {
    for (let i = 0; i < entries; i += batchSize) {
      await store.batch(Array.from({ length: batchSize }, (_, j) => [keyOf((i + j) * 7919 % entries), value]))
    }
  })
  await row('put, one after another', few, async () => {
    for (let i = 0; i < few; i++) await store.put(keyOf(next() % entries), value)
  })
  await row('put, 100 at once', entries, () => together(entries, () => store.put(keyOf(next() % entries), value)))
  if (store.get !== undefined) {
    await row('get, one after another', few, async () => {
      for (let i = 0; i < few; i++) mustBe(await store.get(keyOf(next() % entries)), value)
    })
    await row('get, 100 at once', entries, () => together(entries, () => store.get(keyOf(next() % entries))))
  }
  await row('getSync', entries, async () => {
    for (let i = 0; i < entries; i++) mustBe(store.getSync(keyOf(next() % entries)), value)
  })
  await row('getMany of 100', entries, async () => {
    for (let i = 0; i < entries; i += 100) {
      const found = await store.getMany(Array.from({ length: 100 }, () => keyOf(next() % entries)))
      mustBe(found.at(-1), value)
    }
  })
  await row('walk over entries', entries, async () => mustBe(await store.walk(), entries))
  await row('walk over keys', entries, async () => mustBe(await store.walkKeys(), entries))
  if (store.walkAll !== undefined) {
    await row('all() entries', entries, async () => mustBe(await store.walkAll(), entries))
  }
  await store.close()
  return figures
}

const median = function (numbers) {
  const sorted = [...numbers].sort((a, b) => a - b)
  const middle = sorted.length >> 1
  return sorted.length % 2 === 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2
}

const optionOf = function (name, otherwise) {
  const at = process.argv.indexOf(name)
  return at < 0 ? otherwise : Number(process.argv[at + 1])
}

const main = async function () {
  if (process.argv[2] === 'run') {
    const [, , , peer, directory, entries] = process.argv
    console.log(JSON.stringify(await measure(peer, directory, Number(entries))))
    return
  }

  const rounds = optionOf('--rounds', 5)
  const entries = Math.max(1, Math.round(optionOf('--entries', 50000) / batchSize)) * batchSize
  const figures = Object.fromEntries(Object.keys(peers).map((peer) => [peer, []]))
  for (let round = 0; round < rounds; round++) {
    for (const peer of Object.keys(peers)) {
      const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-bench-'))
      try {
        const output = execFileSync(process.execPath, [__filename, 'run', peer, path.join(scratch, 'store'), entries],
          { encoding: 'utf8' })
        figures[peer].push(JSON.parse(output))
      } finally {
        fs.rmSync(scratch, { recursive: true })
      }
    }
  }

  console.log(`${entries} entries, keys of 16 digits, values of 100 letters; microseconds of each operation, or of each`)
  console.log(`entry in a batch, a getMany and a walk; medians of ${rounds} rounds, and the best in brackets.\n`)
  console.log(`| | ${Object.keys(peers).join(' | ')} |`)
  console.log(`|---|${'---|'.repeat(Object.keys(peers).length)}`)
  for (const name of Object.keys(figures.kestrun[0])) {
    const cells = Object.values(figures).map((runs) => {
      if (runs[0][name] === undefined) return '–'
      const times = runs.map((run) => run[name])
      return `${median(times).toFixed(1)} (${Math.min(...times).toFixed(1)})`
    })
    console.log(`| ${name} | ${cells.join(' | ')} |`)
  }
}

main()
