'use strict'

// The package as a user has it: packed, installed into an empty project, and the example
// of its README run there.
//
//   package.js NPM PAGE...
//
// Every ```js block of the pages that requires 'kestrun' is run.

const assert = require('node:assert/strict')
const { execFileSync } = require('node:child_process')
const fs = require('node:fs')
const os = require('node:os')
const path = require('node:path')

const [, , npm, ...pages] = process.argv
const project = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-package-'))
process.on('exit', () => fs.rmSync(project, { recursive: true, force: true }))

const run = (program, args, cwd) => execFileSync(program, args, { cwd, encoding: 'utf8' })

const [packed] = JSON.parse(run(npm, ['pack', '--json', '--ignore-scripts', '--pack-destination', project],
  path.join(__dirname, '..')))
const files = packed.files.map((file) => file.path).sort()
const native = `prebuilds/linux-${process.arch}`
assert.deepEqual(files, ['README.md', 'index.d.ts', 'index.js', 'lib/iterator.js', 'lib/native.js', 'lib/options.js',
  'lib/snapshot.js', 'package.json', `${native}/kestrunstore.node`, `${native}/libKestrun2.so.2`])

fs.writeFileSync(path.join(project, 'package.json'), '{ "private": true }')
run(npm, ['install', '--ignore-scripts', '--no-audit', '--no-fund', path.join(project, packed.filename)], project)

let examples = 0
for (const page of pages) {
  for (const [, source] of fs.readFileSync(page, 'utf8').matchAll(/^```js\n([^]*?)^```$/gm)) {
    if (!source.includes("require('kestrun')")) continue
    const directory = path.join(project, `example ${examples++}`)
    fs.mkdirSync(directory)
    fs.writeFileSync(path.join(directory, 'example.js'), source)
    // What a comment behind console.log() says is what is printed first.
    const expected = /console\.log\(.*\) \/\/ (.*)$/m.exec(source)
    assert.notEqual(expected, null, `${page}: the example says nothing`)
    assert.equal(run(process.execPath, ['example.js'], directory).split('\n')[0], expected[1])
  }
}
assert.ok(examples >= pages.length, 'every page has an example')
console.log(`${files.length} files packed, ${examples} examples run`)
