// Strings that the facade stores for the real vendor list must decode with the IAB's reference
// library to the purposes, vendors and legitimate interests that the consent actions define.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { TCString } from '@iabtechlabtcf/core';
import { ids } from './reference.mjs';

const tool = process.env.QUILLET_FACADE_TOOL;
const testdata = process.env.QUILLET_TESTDATA_DIR;
assert.ok(tool && testdata, 'QUILLET_FACADE_TOOL and QUILLET_TESTDATA_DIR must be set (ctest sets them)');

const listFile = path.join(testdata, 'gvl-v3-106.json');
const gvl = JSON.parse(fs.readFileSync(listFile, 'utf8'));

const ascending = (list) => [...new Set(list)].sort((a, b) => a - b);
const integers = (list) => (Array.isArray(list) && list.every(Number.isInteger) ? list : []);

// Runs the facade in its own process and returns the TC String it stored.
function storedString(config, decide) {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'quillet-interop-'));
  try {
    const run = spawnSync(tool, [path.join(folder, 'store.sqlite'), '--serve', listFile,
      JSON.stringify(config), '--decide', decide], { encoding: 'utf8', timeout: 60000 });
    assert.equal(run.status, 0, run.stderr);
    const line = run.stdout.split('\n').find((l) => l.startsWith('stored: '));
    assert.ok(line, `no stored string in:\n${run.stdout}`);
    return line.slice('stored: '.length);
  } finally {
    fs.rmSync(folder, { recursive: true, force: true });
  }
}

// Accept all as the consent actions define it, for the vendors the configuration selects.
function expectedAcceptAll(selection) {
  const named = Object.values(gvl.vendors).filter((v) => typeof v.name === 'string' && v.name !== '');
  const vendors = selection ? named.filter((v) => selection.includes(v.id)) : named;
  const vendorIds = selection ?? vendors.map((v) => v.id);
  const entry = (id) => gvl.vendors[String(id)] ?? {};
  const declared = ascending(vendors.flatMap((v) => [...integers(v.purposes), ...integers(v.legIntPurposes)]));
  const offered = Object.values(gvl.purposes).map((p) => p.id).filter((id) => declared.includes(id));
  const legInt = ascending(vendorIds.flatMap((id) => integers(entry(id).legIntPurposes)));
  const maxVendorId = Math.max(...Object.keys(gvl.vendors).map(Number));  // the string's range
  return {
    purposeConsents: ascending(vendorIds.flatMap((id) => integers(entry(id).purposes))),
    purposeLegitimateInterests: ascending(offered.filter((id) => legInt.includes(id))),
    vendorConsents: ascending(vendorIds.filter((id) => id <= maxVendorId)),
    vendorLegitimateInterests: ascending(vendorIds.filter((id) => integers(entry(id).legIntPurposes).length > 0)),
    specialFeatureOptins: ascending(Object.keys(gvl.specialFeatures).map(Number)),
  };
}

function check(text, expected) {
  const model = TCString.decode(text);
  assert.deepEqual(ids(model.purposeConsents), expected.purposeConsents);
  assert.deepEqual(ids(model.purposeLegitimateInterests), expected.purposeLegitimateInterests);
  assert.deepEqual(ids(model.vendorConsents), expected.vendorConsents);
  assert.deepEqual(ids(model.vendorLegitimateInterests), expected.vendorLegitimateInterests);
  assert.deepEqual(ids(model.specialFeatureOptins), expected.specialFeatureOptins);
  assert.equal(model.vendorListVersion, gvl.vendorListVersion);
  assert.equal(model.policyVersion, gvl.tcfPolicyVersion);
  assert.equal(model.cmpId, 471);
  return model;
}

test('accept all for every vendor of the real list', () => {
  const config = { vendorListVersion: gvl.vendorListVersion, publisherCC: 'fr' };
  const model = check(storedString(config, 'accept'), expectedAcceptAll(null));
  assert.equal(model.publisherCountryCode, 'FR');
  assert.ok(ids(model.vendorConsents).length > 900);
});

test('accept all for a selection of the real list', () => {
  const selection = [1, 8, 755, 999999];
  const config = { vendorListVersion: gvl.vendorListVersion, selectedVendorIds: selection };
  const model = check(storedString(config, 'accept'), expectedAcceptAll(selection));
  // The vendor segment carries segment type 2: allowed vendors, the whole selection.
  assert.deepEqual(ids(model.vendorsAllowed), [1, 8, 755]);
});

test('reject all for the real list', () => {
  const config = { vendorListVersion: gvl.vendorListVersion };
  const model = check(storedString(config, 'reject'), {
    purposeConsents: [], purposeLegitimateInterests: [], vendorConsents: [],
    vendorLegitimateInterests: [], specialFeatureOptins: [],
  });
  assert.ok(ids(model.vendorsAllowed).length > 900);
});
