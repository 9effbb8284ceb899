// The disclosed vendors segment of TCF 2.3, both ways against the IAB's reference library:
// `quillet encode --disclose-vendor-list` writes segments it decodes to the same vendors, in the
// shorter encoding, and `quillet decode` reads the segments it writes as it does.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { GVL, Segment, TCModel, TCString } from '@iabtechlabtcf/core';
import { ids } from './reference.mjs';

const cli = process.env.QUILLET_CLI;
const testdata = process.env.QUILLET_TESTDATA_DIR;
assert.ok(cli && testdata, 'QUILLET_CLI and QUILLET_TESTDATA_DIR must be set (ctest sets them)');

function quillet(args, input) {
  const run = spawnSync(cli, args, { input, encoding: 'utf8' });
  assert.equal(run.status, 0, run.stderr);
  return run.stdout.trim();
}

// Lists of every shape: dense runs (a range is shorter), scattered ids (a bit field is), one id.
function lists() {
  let seed = 7;
  const next = () => (seed = (seed * 1103515245 + 12345) % 2147483648) / 2147483648;
  const out = [[1], [755], [1, 2, 3, 10, 11, 12, 755], Array.from({ length: 600 }, (_, i) => i + 1)];
  for (let round = 0; round < 30; ++round) {
    const size = 1 + Math.floor(next() * 1300);
    const share = next();
    out.push([...new Set(Array.from({ length: size }, (_, i) => i + 1).filter(() => next() < share))]);
  }
  return out.filter((list) => list.length > 0);
}

test('quillet encode --disclose-vendor-list writes what the reference library reads', () => {
  for (const list of lists()) {
    const text = quillet(['encode', '--disclose-vendor-list'],
      JSON.stringify({ gvlVendorIds: list, created: 17000000000 }));
    const model = TCString.decode(text);
    assert.deepEqual(ids(model.vendorsDisclosed), list, text);
    // The shorter of the two encodings: bits of the range entries against the bit field's.
    const runs = list.filter((id, i) => i === 0 || list[i - 1] !== id - 1).map((start) => {
      let end = start;
      while (list.includes(end + 1)) end += 1;
      return end > start ? 33 : 17;
    });
    const rangeBits = 12 + runs.reduce((a, b) => a + b, 0);
    const decoded = JSON.parse(quillet(['decode', text]));
    assert.equal(decoded.vendorsDisclosedIsRange, rangeBits < Math.max(...list), text);
  }
});

test('quillet decode reads the reference library\'s disclosed vendors segments', () => {
  const gvl = new GVL(JSON.parse(fs.readFileSync(path.join(testdata, 'gvl-v3-106.json'), 'utf8')));
  const known = Object.keys(gvl.vendors).map(Number);
  for (const list of lists()) {
    const model = new TCModel(gvl);
    model.cmpId = 31;
    model.cmpVersion = 2;
    const disclosed = list.filter((id) => known.includes(id));
    model.vendorsDisclosed.set(disclosed);
    const text = TCString.encode(model, { segments: [Segment.CORE, Segment.VENDORS_DISCLOSED] });
    const ours = JSON.parse(quillet(['decode', text]));
    assert.deepEqual(ours.vendorsDisclosed ?? [], ids(TCString.decode(text).vendorsDisclosed), text);
    assert.deepEqual(ours.vendorsDisclosed ?? [], disclosed, text);
  }
});
