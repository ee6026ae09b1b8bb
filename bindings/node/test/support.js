'use strict'

// What the tests share: a directory of their own that goes with the process, databases
// in it, and other processes.

const { spawn } = require('node:child_process')
const fs = require('node:fs')
const os = require('node:os')
const path = require('node:path')
const { KestrunLevel } = require('..')

const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-node-'))
process.on('exit', () => fs.rmSync(directory, { recursive: true, force: true }))

let names = 0

// A path that nothing is at.
exports.newLocation = function () {
  return path.join(directory, String(names++))
}

// A database in a directory of its own, open, closed again when the test `t` ends.
exports.openLevel = async function (t, options) {
  const db = new KestrunLevel(exports.newLocation(), options)
  await db.open()
  t.after(() => db.close())
  return db
}

// All entries of the database, in order.
exports.entriesOf = async function (db, options) {
  return db.iterator(options ?? {}).all()
}

// Runs `source` in another process, with KestrunLevel and the arguments as `args`. `lines` yields what it
// writes, line by line; `ended` is fulfilled with how it ended and everything that it wrote.
exports.startScript = function (source, ...args) {
  const prologue = `const { KestrunLevel } = require(${JSON.stringify(path.join(__dirname, '..'))})\n` +
    `const args = ${JSON.stringify(args)}\n`
  const child = spawn(process.execPath, ['--expose-gc', '-e', prologue + source], { stdio: ['pipe', 'pipe', 'pipe'] })
  let stdout = ''
  let stderr = ''
  child.stdout.setEncoding('utf8').on('data', (text) => { stdout += text })
  child.stderr.setEncoding('utf8').on('data', (text) => { stderr += text })
  const ended = new Promise((resolve) => {
    child.on('close', (status, signal) => resolve({ status, signal, stdout, stderr }))
  })
  const hasLine = (line) => stdout.split('\n').includes(line)
  return {
    child,
    ended,
    stdout: () => stdout,
    // Fulfilled when the process has written the line.
    wrote: (line) => new Promise((resolve, reject) => {
      if (hasLine(line)) return resolve()
      child.stdout.on('data', () => { if (hasLine(line)) resolve() })
      child.on('close', () => reject(new Error(`the process ended without "${line}": ${stdout}${stderr}`)))
    })
  }
}

// Runs `source` to its end, which has to be a good one, and returns what it wrote.
exports.runScript = async function (source, ...args) {
  const { status, signal, stdout, stderr } = await exports.startScript(source, ...args).ended
  if (status !== 0 || stderr !== '') throw new Error(`ended with ${status ?? signal}: ${stdout}${stderr}`)
  return stdout
}
