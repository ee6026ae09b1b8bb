'use strict'

// Options as the native functions take them. They count in 32 bits, so nothing larger may reach them.

const maxUint32 = 0xFFFFFFFF
const ttlForever = maxUint32
const logHeaderSize = 128

const forms = { utf8: 1, buffer: 2, view: 3 }

// How the native functions hand out what has the encoding; nothing for null.
exports.form = function (encoding) {
  return encoding === null ? 0 : forms[encoding]
}

const typeError = function (name, expected, value) {
  const err = new TypeError(`The option '${name}' must be ${expected}, received ${describe(value)}`)
  err.code = 'ERR_INVALID_ARG_TYPE'
  return err
}

const rangeError = function (name, expected, value) {
  const err = new RangeError(`The option '${name}' must be ${expected}, received ${value}`)
  err.code = 'ERR_OUT_OF_RANGE'
  return err
}

const describe = function (value) {
  return value === null ? 'null' : typeof value
}

// The time to live in seconds. A part of a second counts as a whole one; what is beyond
// the longest is for ever.
exports.ttlOf = function (options) {
  const ttl = options.ttl
  if (ttl === undefined || ttl === null) return ttlForever
  if (typeof ttl !== 'number') throw typeError('ttl', 'a number of seconds', ttl)
  if (!(ttl > 0)) throw rangeError('ttl', 'greater than 0', ttl)
  return ttl >= ttlForever ? ttlForever : Math.ceil(ttl)
}

const bool = function (options, name, otherwise) {
  const value = options[name]
  if (value === undefined || value === null) return otherwise
  if (typeof value !== 'boolean') throw typeError(name, 'a boolean', value)
  return value
}

// What the store is opened with, from the options of the constructor and of open().
exports.storeOptions = function (options) {
  const logSize = options.logSize ?? 4 * 1024 * 1024
  if (typeof logSize !== 'number') throw typeError('logSize', 'a number of bytes', logSize)
  if (!Number.isInteger(logSize) || logSize <= logHeaderSize || logSize > maxUint32) {
    throw rangeError('logSize', `an integer from ${logHeaderSize + 1} to ${maxUint32}`, logSize)
  }

  const busyTimeout = options.busyTimeout ?? 5000
  if (typeof busyTimeout !== 'number') throw typeError('busyTimeout', 'a number of milliseconds', busyTimeout)
  if (!(busyTimeout >= 0)) throw rangeError('busyTimeout', '0 or greater', busyTimeout)

  return {
    logSize,
    createIfMissing: options.createIfMissing,
    errorIfExists: options.errorIfExists,
    autoCompact: bool(options, 'autoCompact', true),
    busyTimeout: busyTimeout >= maxUint32 ? maxUint32 : Math.ceil(busyTimeout)
  }
}

// The bounds of a walk. Inclusive ones win, and a bound counts when it is empty.
exports.range = function (options) {
  const lowerInclusive = options.gte !== undefined
  const upperInclusive = options.lte !== undefined
  return {
    lower: lowerInclusive ? options.gte : options.gt,
    lowerInclusive,
    upper: upperInclusive ? options.lte : options.lt,
    upperInclusive
  }
}
