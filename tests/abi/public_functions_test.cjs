// The functions that the public headers declare are those of the list of exported symbols, name for name:
// none is forgotten in the library, none of a private section is shown.
//
//   node public_functions_test.cjs HEADER_DIRECTORY LIST
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');

const [, , headers, list] = process.argv;

// The declarations of `text` outside of any braces, each without its body.
function declarations(text) {
  const found = [];
  let current = '';
  let depth = 0;
  for (const letter of text) {
    if (letter === '{') depth += 1;
    else if (letter === '}') {
      depth -= 1;
      if (depth === 0 && current.includes('(')) {
        found.push(`${current.trim()} {}`);
        current = '';
      }
    } else if (depth === 0) {
      if (letter === ';') {
        found.push(current.trim());
        current = '';
      } else current += letter;
    }
  }
  return found;
}

// The name of the function that a declaration introduces for the library to define, or null.
function functionName(declaration) {
  if (/= (default|delete)$|\{\}$|^(friend|static_assert|using|template)\b/.test(declaration)) return null;
  const match = /(operator[^\s\w(]+|~?\w+)\s*\(/.exec(declaration);
  return match === null ? null : match[1];
}

function functionsOf(header) {
  const text = fs.readFileSync(header, 'utf8').replace(/\/\/.*$/gm, '').replace(/^\s*#.*(\\\n.*)*$/gm, '');
  const found = [];
  for (const [, kind, name, body] of text.matchAll(/(class|struct) KESTRUN_EXPORT (\w+)[^{;]*\{([^]*?)\n\};/g)) {
    let access = kind === 'struct' ? 'public' : 'private';
    for (const section of body.split(/^ (public|private|protected):$/m)) {
      if (['public', 'private', 'protected'].includes(section)) access = section;
      else if (access === 'public') {
        for (const declaration of declarations(section)) {
          const member = functionName(declaration);
          if (member !== null) found.push(`${name}::${member}`);
        }
      }
    }
  }
  for (const [, name] of text.matchAll(/^KESTRUN_EXPORT [^;]*?(\w+)\(/gm)) found.push(name);
  return found;
}

const declared = new Set();
for (const file of fs.readdirSync(headers)) {
  for (const name of functionsOf(path.join(headers, file))) declared.add(name);
}
const exported = new Set(fs.readFileSync(list, 'utf8').trim().split('\n').map((line) => {
  const match = /^Kestrun::((?:\w+::)?(?:operator[^\w\s(]+|~?\w+))\(/.exec(line) ?? /^(kestrun_\w+)$/.exec(line);
  assert.notEqual(match, null, `not a function of the library: ${line}`);
  return match[1];
}));
assert.ok(declared.size > 50, 'the headers were read');
assert.deepEqual([...declared].sort(), [...exported].sort());
