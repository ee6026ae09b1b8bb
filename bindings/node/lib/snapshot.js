'use strict'

const { AbstractSnapshot } = require('abstract-level')
const native = require('./native.js')

class KestrunSnapshot extends AbstractSnapshot {
  #handle

  constructor (options, handle) {
    super(options)
    this.#handle = handle
  }

  async _close () {
    native.snapshotClose(this.#handle)
  }

  static handleOf (snapshot) {
    if (snapshot == null) return undefined
    if (!(#handle in snapshot)) throw new TypeError("The option 'snapshot' must be a snapshot of this database")
    return snapshot.#handle
  }
}

exports.KestrunSnapshot = KestrunSnapshot
// The native snapshot of the option `snapshot`; undefined when there is none.
exports.handleOf = KestrunSnapshot.handleOf
