// Differential run: variants of the real TC Strings of testdata, read by `quillet decode` and by
// the IAB's reference library, and every disagreement between the two sorted into kinds.
//
//   node scripts/differential.mjs QUILLET TESTDATA [--variants N] [--seed S] [--examples K]
//                                 [--report FILE]
//
// Variants of each string: every single-bit flip, truncations at every character, each segment
// dropped, segments of other strings added, and single characters changed to another base64url
// character or to one outside the alphabet. A string gets its share of N; where it has more
// candidates than that, a seeded sample is taken (all truncations and segment changes first).
// Disagreements are: accepted by one reader and refused by the other, or accepted by both with a
// field that differs. Each kind is looked up in the triage below (docs/differential.md explains
// every entry); the run fails when a kind is not triaged or is triaged as a defect of ours.
// `--report` writes every disagreement, one JSON object a line.

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';
import { differingFields, generator, ourFields, referenceFields } from '../tests/interop/reference.mjs';

// The reference library is installed with the tests' npm packages.
const { TCString } = createRequire(new URL('../tests/package.json', import.meta.url))('@iabtechlabtcf/core');

const usage = 'usage: differential.mjs QUILLET TESTDATA [--variants N] [--seed S] [--examples K]' +
  ' [--report FILE]';
const [cli, testdata, ...rest] = process.argv.slice(2);
if (!cli || !testdata) {
  console.error(usage);
  process.exit(2);
}
const options = { variants: 100000, seed: 20261123, examples: 1, report: '' };
for (let i = 0; i < rest.length; i += 2) {
  const name = rest[i].replace(/^--/, '');
  const value = name === 'report' ? rest[i + 1] : Number(rest[i + 1]);
  if (!(name in options) || !(name === 'report' ? value : Number.isInteger(value) && value >= 0)) {
    console.error(usage);
    process.exit(2);
  }
  options[name] = value;
}

const alphabet = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_';
// Characters outside the alphabet: the other base64 alphabet, padding, a segment separator and
// one that no base64 knows.
const outsiders = '+/=.!';

// Every change to `text` as a small record, systematic ones first; `apply` makes the variant.
function changes(text, otherSegments) {
  const systematic = [];
  const characters = [];
  for (let end = 1; end < text.length; end += 1) systematic.push({ truncate: end });
  text.split('.').forEach((_, i) => systematic.push({ drop: i }));
  for (const [origin, segment] of otherSegments) systematic.push({ add: segment, origin });
  systematic.push({ double: true });
  for (let at = 0; at < text.length; at += 1) {
    if (!alphabet.includes(text[at])) continue;
    for (let bit = 0; bit < 6; bit += 1) characters.push({ at, bit });
    for (const other of alphabet + outsiders) {
      if (other !== text[at]) characters.push({ at, other });
    }
  }
  return { systematic, characters };
}

// The variant and how it was made.
function apply(text, change) {
  const segments = text.split('.');
  const replaced = (at, c) => text.slice(0, at) + c + text.slice(at + 1);
  if (change.truncate !== undefined) {
    return [`truncated to ${change.truncate} characters`, text.slice(0, change.truncate)];
  }
  if (change.drop !== undefined) {
    return [`segment ${change.drop} dropped`, segments.filter((_, j) => j !== change.drop).join('.')];
  }
  if (change.add !== undefined) return [`segment added from ${change.origin}`, `${text}.${change.add}`];
  if (change.double) return ['last segment doubled', `${text}.${segments[segments.length - 1]}`];
  if (change.bit !== undefined) {
    const flipped = alphabet[alphabet.indexOf(text[change.at]) ^ (1 << (5 - change.bit))];
    return [`bit ${change.bit} of character ${change.at} flipped`, replaced(change.at, flipped)];
  }
  return [`character ${change.at} changed to "${change.other}"`, replaced(change.at, change.other)];
}

function shuffle(list, next) {
  for (let i = list.length - 1; i > 0; i -= 1) {
    const j = next(i + 1);
    [list[i], list[j]] = [list[j], list[i]];
  }
  return list;
}

// `total` distinct variants, taken from the strings in turn so that each gets an even share while
// it has changes left.
function variantsOf(samples, total, next) {
  const otherSegments = [];
  for (const { text, line } of samples) {
    text.split('.').slice(1).forEach((segment) => otherSegments.push([`line ${line}`, segment]));
  }
  const uniqueSegments = [...new Map(otherSegments.map((e) => [e[1], e])).values()];
  const queues = samples.map((sample) => {
    const { systematic, characters } =
      changes(sample.text, shuffle(uniqueSegments.slice(), next).slice(0, 8));
    return { sample, list: shuffle(systematic, next).concat(shuffle(characters, next)), at: 0 };
  });
  const seen = new Set(samples.map((s) => s.text));
  const variants = [];
  let open = queues;
  while (variants.length < total && open.length > 0) {
    for (const queue of open) {
      while (queue.at < queue.list.length) {
        const [how, text] = apply(queue.sample.text, queue.list[queue.at++]);
        if (text.length === 0 || seen.has(text)) continue;
        seen.add(text);
        variants.push({ text, how, origin: queue.sample });
        break;
      }
      if (variants.length === total) break;
    }
    open = open.filter((queue) => queue.at < queue.list.length);
  }
  return variants;
}

// `quillet decode` over all variants in one process: accepted strings come out on standard output
// and refused ones on standard error, each stream in input order.
function decodeAll(texts) {
  return new Promise((resolve, reject) => {
    const child = spawn(cli, ['decode'], { stdio: ['pipe', 'pipe', 'pipe'] });
    const out = [];
    const err = [];
    child.stdout.on('data', (chunk) => out.push(chunk));
    child.stderr.on('data', (chunk) => err.push(chunk));
    child.on('error', reject);
    child.on('close', (status) => {
      if (status !== 0 && status !== 1) {
        reject(new Error(`quillet decode ended with status ${status}`));
        return;
      }
      const lines = Buffer.concat(out).toString('utf8').split('\n');
      const refusals = Buffer.concat(err).toString('utf8').split('\n');
      let o = 0;
      let e = 0;
      resolve(texts.map((text) => {
        const prefix = `quillet decode: cannot read ${JSON.stringify(text)}: `;
        if (refusals[e]?.startsWith(prefix)) return { error: refusals[e++].slice(prefix.length) };
        if (o >= lines.length || lines[o] === '') throw new Error(`no answer for ${text}`);
        return { json: JSON.parse(lines[o++]) };
      }));
    });
    child.stdin.end(`${texts.join('\n')}\n`);
  });
}

// A message with its numbers, quoted values and trailing details taken out, so that one kind of
// refusal reads the same for every variant.
function shape(message) {
  return message.replace(/invalid value \S+ passed/, 'invalid value … passed').replace(/"[^"]*"/g, '"…"').replace(/\b\d+\b/g, 'N').replace(/\s+/g, ' ').trim();
}

function referenceRead(text) {
  try {
    return { fields: referenceFields(TCString.decode(text)) };
  } catch (error) {
    return { error: `${error.name}: ${error.message}` };
  }
}

// Triage: what each kind of disagreement is, matched on the kind's text. The verdicts are
// explained in docs/differential.md under the same headings.
const onPurpose = 'a difference our reader makes on purpose';
const theirs = "the reference library's defect or leniency";
const triage = [
  { match: /^refused by the reference only: DecodingError: Invalidly encoded Base64URL string/,
    verdict: onPurpose, heading: 'Padding' },
  { match: /field Version at bit N: version N is not a TCF v2 string$/,
    verdict: theirs, heading: 'A string without a version 2 core segment first' },
  { match: /^fields differ: (consentLanguage|publisherCountryCode)$|for publisherCountryCode/,
    verdict: onPurpose, heading: 'Letter values above Z' },
  { match: /VendorId at bit N: (vendor N above MaxVendorId N|range N-N ends before it starts)$/,
    verdict: onPurpose, heading: 'Vendor ids above MaxVendorId and reversed ranges' },
  { match: /PubRestrictions\.StartOrOnlyVendorId at bit N: vendor id N$/,
    verdict: onPurpose, heading: 'Vendor id 0 in a publisher restriction' },
  { match: /field SegmentType at bit N: segment appears twice$/,
    verdict: onPurpose, heading: 'A segment type twice' },
  { match: /cannot hash invalid PurposeRestriction \(quillet warns[^)]*\)$/,
    verdict: onPurpose, heading: 'Restrictions on purpose 0 or of type 3' },
  { match: /invalid value … passed for cmpId( \(quillet warns[^)]*\))?$/,
    verdict: theirs, heading: 'CMP ids 0 and 1' },
  // Last: whatever else the reference fails with once it reads a later segment as a core.
  { match: /^refused by the reference only: .*, ignoring a second core segment\)$/,
    verdict: theirs, heading: 'A second core segment' },
];

function verdictOf(kind) {
  return triage.find((entry) => entry.match.test(kind));
}

const started = Date.now();
const samples = fs.readFileSync(path.join(testdata, 'tc-strings.txt'), 'utf8').split('\n')
  .map((line, i) => ({ text: line.split('\t')[0], line: i + 1 }))
  .filter((s) => s.text.length > 0);
const variants = variantsOf(samples, options.variants, generator(options.seed));
const ours = await decodeAll(variants.map((v) => v.text));

const kinds = new Map();
const report = [];
const counts = { variants: variants.length, bothAccept: 0, bothRefuse: 0, agree: 0 };
variants.forEach((variant, i) => {
  const mine = ours[i];
  const theirs = referenceRead(variant.text);
  let kind;
  if (mine.error && theirs.error) {
    counts.bothRefuse += 1;
    return;
  }
  if (mine.error) {
    kind = `refused by quillet only: ${shape(mine.error)}`;
  } else if (theirs.error) {
    // A later segment of type 0 makes the reference decode a core again, and fail in ways that
    // depend on the bits; what it fails with tells nothing, so the kind names our warning.
    const { warnings } = mine.json;
    const secondCore = warnings.some((w) => / has segment type 0 \(core\) and was ignored$/.test(w));
    const warned = secondCore ? ' (quillet warns, ignoring a second core segment)'
      : warnings.length ? ' (quillet warns)' : '';
    kind = `refused by the reference only: ${shape(theirs.error)}${warned}`;
  } else {
    counts.bothAccept += 1;
    const fields = differingFields(ourFields(mine.json), theirs.fields);
    if (fields.length === 0) return;
    kind = `fields differ: ${fields.join(', ')}`;
  }
  if (options.report) {
    report.push(JSON.stringify({ kind, variant: variant.text, how: variant.how,
      line: variant.origin.line, quillet: mine.error ?? mine.json.warnings,
      reference: theirs.error ?? null }));
  }
  const entry = kinds.get(kind) ?? { count: 0, examples: [] };
  entry.count += 1;
  if (entry.examples.length < options.examples) {
    entry.examples.push({ variant: variant.text, how: variant.how,
      origin: `testdata/tc-strings.txt line ${variant.origin.line}`,
      quillet: mine.error ?? mine.json, reference: theirs.error ?? theirs.fields });
  }
  kinds.set(kind, entry);
});
if (options.report) fs.writeFileSync(options.report, report.map((r) => `${r}\n`).join(''));
counts.agree = variants.length - [...kinds.values()].reduce((n, k) => n + k.count, 0);

console.log(`differential: ${counts.variants} variants of ${samples.length} strings, ` +
  `seed ${options.seed}, ${((Date.now() - started) / 1000).toFixed(1)} s`);
console.log(`  both accept: ${counts.bothAccept}, both refuse: ${counts.bothRefuse}, ` +
  `agree in all: ${counts.agree}, disagree: ${counts.variants - counts.agree}`);
let failed = false;
for (const [kind, entry] of [...kinds].sort((a, b) => b[1].count - a[1].count)) {
  const verdict = verdictOf(kind);
  const label = verdict ? verdict.verdict : 'NOT TRIAGED';
  if (!verdict || verdict.verdict === 'our defect') failed = true;
  console.log(`\n${String(entry.count).padStart(7)}  ${kind}\n         ${label}` +
    (verdict ? ` (docs/differential.md: "${verdict.heading}")` : ''));
  for (const example of entry.examples) {
    console.log(`         e.g. ${example.how} of ${example.origin}: ${example.variant}`);
    if (!verdict) {
      console.log(`         quillet: ${JSON.stringify(example.quillet)}`);
      console.log(`         reference: ${JSON.stringify(example.reference)}`);
    }
  }
}
if (failed) {
  console.log('\ndifferential: a kind of disagreement is not triaged or is a defect of ours');
  process.exit(1);
}
