'use strict'

// The three iterators of a database. They read ahead: a few entries at first, then more, as many as the
// native side puts into one read. What was read ahead is handed out before anything else is read.

const { AbstractIterator, AbstractKeyIterator, AbstractValueIterator } = require('abstract-level')
const native = require('./native.js')
const { form, range } = require('./options.js')
const { handleOf } = require('./snapshot.js')

const firstCount = 1
const maxCount = 1000
const maxBytes = 64 * 1024 // of what is read ahead
const maxBytesOfCall = 1024 * 1024 // of what one call of nextv() hands out
const maxCountOfCall = 0xFFFFFFFF
const noEntries = Object.freeze([])

const abortError = function () {
  const err = new Error('Operation has been aborted')
  err.code = 'LEVEL_ABORTED'
  err.name = 'AbortError'
  return err
}

const noop = function () {}

const itself = function (flat) {
  return flat
}

const pairs = function (flat) {
  const items = new Array(flat.length / 2)
  for (let i = 0; i < items.length; i++) items[i] = [flat[2 * i], flat[2 * i + 1]]
  return items
}

const keysOnly = function (flat) {
  return flat.map((key) => [key, undefined])
}

const valuesOnly = function (flat) {
  return flat.map((value) => [undefined, value])
}

const nothing = function (flat) {
  return flat.map(() => [undefined, undefined])
}

// The native iterator and what was read ahead of it.
class Reader {
  #iterator
  #signal
  #limit
  #toItems
  #ahead = noEntries // items, in order
  #next = 0 // the first of them that was not handed out
  #count = firstCount // how many to read ahead the next time
  #handedOut = 0
  #ended = false
  #reading = null

  // `toItems` makes the items of the iterator from the flat array of a read.
  constructor (database, options, keyForm, valueForm, toItems) {
    const { lower, lowerInclusive, upper, upperInclusive } = range(options)
    this.#iterator = native.iterator(database, lower, lowerInclusive, upper, upperInclusive, options.reverse,
      keyForm, valueForm, handleOf(options.snapshot))
    this.#signal = options.signal ?? null
    this.#limit = options.limit >= 0 ? options.limit : Infinity
    this.#toItems = toItems
  }

  // Most items were read ahead: they cost a promise and nothing more.
  next () {
    if (this.#next === this.#ahead.length) return this.#nextRead()
    this.#handedOut++
    return Promise.resolve(this.#ahead[this.#next++])
  }

  async #nextRead () {
    if (this.#ended) return undefined
    const count = Math.min(this.#count, this.#limit - this.#handedOut)
    this.#count = Math.min(this.#count * 10, maxCount)
    this.#ahead = await this.#read(count, maxBytes)
    this.#next = 0
    if (this.#ahead.length === 0) return undefined
    this.#handedOut++
    return this.#ahead[this.#next++]
  }

  async nextv (size) {
    const rest = this.#takeAhead(size)
    if (rest.length > 0) {
      this.#handedOut += rest.length
      return rest
    }
    if (this.#ended) return []
    const items = await this.#read(Math.min(size, maxCountOfCall), maxBytesOfCall)
    this.#handedOut += items.length
    return items
  }

  async all () {
    let items = this.#takeAhead(Infinity)
    while (!this.#ended && this.#handedOut + items.length < this.#limit) {
      const count = Math.min(maxCount, this.#limit - this.#handedOut - items.length)
      const read = await this.#read(count, maxBytes)
      if (items.length === 0) items = read
      else for (const item of read) items.push(item)
    }
    this.#handedOut += items.length
    return items
  }

  seek (target) {
    this.#ahead = noEntries
    this.#next = 0
    this.#count = firstCount
    this.#ended = false
    // After an abort a read may still be under way, and nothing is read any more.
    if (this.#reading === null) native.iteratorSeek(this.#iterator, target)
  }

  async close () {
    this.#ahead = noEntries
    this.#next = 0
    this.#ended = true
    // An aborted read ends soon; its promise was rejected before.
    while (this.#reading !== null) await this.#reading.catch(noop)
    native.iteratorClose(this.#iterator)
  }

  #takeAhead (size) {
    const begin = this.#next
    const end = Math.min(this.#ahead.length, begin + size)
    this.#next = end
    return this.#ahead.slice(begin, end)
  }

  // Reads at least one item unless at the end.
  async #read (count, bytes) {
    const reading = native.iteratorRead(this.#iterator, count, bytes)
    this.#reading = reading
    const done = () => { this.#reading = null }
    reading.then(done, done)

    const flat = await (this.#signal === null ? reading : this.#orAborted(reading))
    this.#ended = flat.pop()
    return this.#toItems(flat)
  }

  #orAborted (reading) {
    const signal = this.#signal
    return new Promise((resolve, reject) => {
      const abort = () => {
        native.iteratorAbort(this.#iterator)
        reject(abortError())
      }
      signal.addEventListener('abort', abort, { once: true })
      reading.then(resolve, reject).finally(() => signal.removeEventListener('abort', abort))
    })
  }
}

class EntryIterator extends AbstractIterator {
  #reader

  constructor (db, database, options) {
    // Before abstract-level attaches the iterator to the database, which has to hold none that failed.
    const keys = form(options.keys ? options.keyEncoding : null)
    // With neither, the keys are counted.
    const values = form(options.values ? options.valueEncoding : null)
    const counted = !options.keys && !options.values
    const reader = new Reader(database, options, counted ? form(options.keyEncoding) : keys, values,
      options.keys && options.values ? pairs : options.values ? valuesOnly : counted ? nothing : keysOnly)
    super(db, options)
    this.#reader = reader
  }

  _next () { return this.#reader.next() }
  _nextv (size) { return this.#reader.nextv(size) }
  _all () { return this.#reader.all() }
  _seek (target) { this.#reader.seek(target) }
  _close () { return this.#reader.close() }
}

class KeyIterator extends AbstractKeyIterator {
  #reader

  constructor (db, database, options) {
    const reader = new Reader(database, options, form(options.keyEncoding), form(null), itself)
    super(db, options)
    this.#reader = reader
  }

  _next () { return this.#reader.next() }
  _nextv (size) { return this.#reader.nextv(size) }
  _all () { return this.#reader.all() }
  _seek (target) { this.#reader.seek(target) }
  _close () { return this.#reader.close() }
}

class ValueIterator extends AbstractValueIterator {
  #reader

  constructor (db, database, options) {
    const reader = new Reader(database, options, form(null), form(options.valueEncoding), itself)
    super(db, options)
    this.#reader = reader
  }

  _next () { return this.#reader.next() }
  _nextv (size) { return this.#reader.nextv(size) }
  _all () { return this.#reader.all() }
  _seek (target) { this.#reader.seek(target) }
  _close () { return this.#reader.close() }
}

exports.EntryIterator = EntryIterator
exports.KeyIterator = KeyIterator
exports.ValueIterator = ValueIterator
