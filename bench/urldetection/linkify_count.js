// Times linkify-it's match() over a file and prints the throughput and the
// number of links it found: "linkify-it <MB/s> <links>".
'use strict';
const fs = require('fs');
const path = require('path');
const LinkifyIt = require(path.join(__dirname, 'node_modules', 'linkify-it'));

const file = process.argv[2];
const repetitions = Number(process.argv[3] || 5);
const text = fs.readFileSync(file, 'utf8');
const bytes = Buffer.byteLength(text, 'utf8');
const linkify = new LinkifyIt();
let links = 0;
const times = [];
for (let i = 0; i < repetitions + 1; i++) {
  const start = process.hrtime.bigint();
  const matches = linkify.match(text) || [];
  const seconds = Number(process.hrtime.bigint() - start) / 1e9;
  links = matches.length;
  if (i > 0) times.push(seconds);  // the first run warms up the JIT
}
times.sort((a, b) => a - b);
const median = times[Math.floor(times.length / 2)];
console.log(`linkify-it ${(bytes / 1e6 / median).toFixed(2)} ${links}`);
