'use strict'

// KestrunLevel: a Kestrun store as an abstract-level database.
//
// The work is done by the native functions of lib/native.js, on the thread pool. What is checked here are
// options: abstract-level checks keys and values, and the native functions their types and sizes.

const { AbstractLevel } = require('abstract-level')
const native = require('./lib/native.js')
const { EntryIterator, KeyIterator, ValueIterator } = require('./lib/iterator.js')
const { KestrunSnapshot, handleOf } = require('./lib/snapshot.js')
const { form, range, storeOptions, ttlOf } = require('./lib/options.js')

const manifest = {
  encodings: { buffer: true, utf8: true, view: true },
  implicitSnapshots: true,
  explicitSnapshots: true,
  seek: true,
  has: true,
  getSync: true,
  permanence: true,
  createIfMissing: true,
  errorIfExists: true,
  signals: { iterators: true },
  additionalMethods: { flush: true, compact: true, sync: true, checkpoint: true }
}

class KestrunLevel extends AbstractLevel {
  #location
  #database
  #logSize = 0

  // Touches nothing: the store is opened, and made if need be, by open() or the first operation.
  constructor (location, options) {
    if (typeof location !== 'string' || location === '' || location.includes('\0')) {
      throw new TypeError("The first argument 'location' must be the path of a directory")
    }
    super(structuredClone(manifest), options)
    this.#location = location
    this.#database = native.create(false)
  }

  get location () {
    return this.#location
  }

  async _open (options) {
    const { logSize, createIfMissing, errorIfExists, autoCompact, busyTimeout } = storeOptions(options)
    await native.open(this.#database, this.#location, logSize, createIfMissing, errorIfExists, autoCompact, busyTimeout)
    this.#logSize = logSize
  }

  async _close () {
    return native.close(this.#database)
  }

  // The private functions below are called by async ones of abstract-level, which turn what
  // is thrown into a rejection.

  _get (key, options) {
    return native.get(this.#database, key, form(options.valueEncoding), handleOf(options.snapshot))
  }

  _getSync (key, options) {
    return native.getSync(this.#database, key, form(options.valueEncoding), handleOf(options.snapshot))
  }

  _getMany (keys, options) {
    return native.getMany(this.#database, keys, form(options.valueEncoding), handleOf(options.snapshot))
  }

  _has (key, options) {
    return native.has(this.#database, key, handleOf(options.snapshot))
  }

  _hasMany (keys, options) {
    return native.getMany(this.#database, keys, form(null), handleOf(options.snapshot))
  }

  _put (key, value, options) {
    return native.put(this.#database, key, value, ttlOf(options))
  }

  _del (key, options) {
    return native.del(this.#database, key)
  }

  _batch (operations, options) {
    const flat = new Array(operations.length * 3)
    let i = 0
    for (const operation of operations) {
      if (operation.sublevel != null) {
        throw new TypeError('The sublevel of a batch operation must be of the same database')
      }
      const put = operation.type === 'put'
      flat[i++] = operation.key
      flat[i++] = put ? operation.value : undefined
      flat[i++] = put ? ttlOf(operation) : 0
    }
    return native.batch(this.#database, flat)
  }

  _clear (options) {
    const { lower, lowerInclusive, upper, upperInclusive } = range(options)
    return native.clear(this.#database, lower, lowerInclusive, upper, upperInclusive, options.reverse, options.limit,
      handleOf(options.snapshot), this.#logSize)
  }

  _iterator (options) {
    return new EntryIterator(this, this.#database, options)
  }

  _keys (options) {
    return new KeyIterator(this, this.#database, options)
  }

  _values (options) {
    return new ValueIterator(this, this.#database, options)
  }

  _snapshot (options) {
    return new KestrunSnapshot(options, native.snapshot(this.#database))
  }

  // Writes the log's entries to a new block and empties the log.
  flush () {
    return this.#whenOpen(() => native.flush(this.#database))
  }

  // Merges log and blocks into one block; what is deleted or expired goes.
  compact () {
    return this.#whenOpen(() => native.compact(this.#database))
  }

  // Brings everything acknowledged so far to the disk.
  sync () {
    return this.#whenOpen(() => native.sync(this.#database))
  }

  // Makes a consistent copy, which opens as a store, in the new directory `directory`.
  checkpoint (directory) {
    return this.#whenOpen(() => {
      if (typeof directory !== 'string' || directory === '' || directory.includes('\0')) {
        throw new TypeError("The first argument 'directory' must be the path of a new directory")
      }
      return native.checkpoint(this.#database, directory)
    })
  }

  async #whenOpen (call) {
    if (this.status === 'opening') return this.deferAsync(() => this.#whenOpen(call))
    return call()
  }
}

exports.KestrunLevel = KestrunLevel
