'use strict'

// The native module for this system, which script/build-node puts beside the
// script together with the library.
const path = require('node:path')

const directory = path.join(__dirname, '..', 'prebuilds', `${process.platform}-${process.arch}`)

try {
  module.exports = require(path.join(directory, 'kestrunstore.node'))
} catch (err) {
  if (err.code !== 'MODULE_NOT_FOUND') throw err
  throw new Error(`kestrun has no native module for ${process.platform}-${process.arch}`, { cause: err })
}
