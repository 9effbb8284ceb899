// TCString::parse against the IAB's reference library on the valid real strings, measured in the
// same run: the mean time a string with each, and the ratio. Each side is timed over many rounds
// and its fastest round kept, so that a busy machine slows neither side alone.
// Usage: node bench/parse_ratio.mjs CODEC_BENCH_BINARY TESTDATA_DIR
import { spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

// The reference library is installed with the tests.
const tests = join(dirname(fileURLToPath(import.meta.url)), '..', 'tests', 'package.json');
const { TCString } = await import(createRequire(tests).resolve('@iabtechlabtcf/core'));

const [bench, testdata] = process.argv.slice(2);
const strings = readFileSync(join(testdata, 'tc-strings.txt'), 'utf8')
  .split('\n')
  .filter((line) => line.split('\t')[1]?.startsWith('valid'))
  .map((line) => line.split('\t')[0]);

// The reference library refuses a few of them; it is timed on the same strings all the same.
const decode = (text) => {
  try {
    TCString.decode(text);
    return true;
  } catch {
    return false;
  }
};
const refused = strings.filter((text) => !decode(text)).length;

// The reference library: the fastest of 30 rounds over every string, each round long enough
// for the clock.
let reference = Infinity;
for (let round = 0; round < 30; ++round) {
  const passes = 20;
  const started = process.hrtime.bigint();
  for (let pass = 0; pass < passes; ++pass) {
    for (const text of strings) decode(text);
  }
  const ns = Number(process.hrtime.bigint() - started) / (passes * strings.length);
  reference = Math.min(reference, ns);
}

// Ours: the benchmark's fastest repetition.
const run = spawnSync(bench, ['--benchmark_filter=ReadEveryValidString',
  '--benchmark_repetitions=15', '--benchmark_min_time=0.05', '--benchmark_format=json'],
{ encoding: 'utf8' });
if (run.status !== 0) throw new Error(run.stderr);
const rows = JSON.parse(run.stdout).benchmarks.filter((b) => b.run_type === 'iteration');
const ours = Math.min(...rows.map((b) => b['per string'])) * 1e9;  // seconds in the JSON

console.log(`${strings.length} valid real strings (${refused} refused by the reference library), ` +
  'mean time a string (fastest round)');
console.log(`  reference library TCString.decode  ${(reference / 1000).toFixed(2)} µs`);
console.log(`  TCString::parse                    ${ours.toFixed(1)} ns`);
console.log(`  ratio                              ${(reference / ours).toFixed(0)}x`);
