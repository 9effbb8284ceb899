// The strings that the facade stores for decisions on the real vendor list (kept by the facade
// test in testdata/golden/facade-strings.txt: each configuration, then the string) must decode
// with the IAB's reference library to the purposes, vendors and legitimate interests that the
// consent actions define.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { TCString } from '@iabtechlabtcf/core';
import { ids } from './reference.mjs';

const testdata = process.env.QUILLET_TESTDATA_DIR;
assert.ok(testdata, 'QUILLET_TESTDATA_DIR must be set (ctest sets it)');
const gvl = JSON.parse(fs.readFileSync(path.join(testdata, 'gvl-v3-106.json'), 'utf8'));
const lines = fs.readFileSync(path.join(testdata, 'golden/facade-strings.txt'), 'utf8').split('\n');

const ascending = (list) => [...new Set(list)].sort((a, b) => a - b);
const integers = (list) => (Array.isArray(list) && list.every(Number.isInteger) ? list : []);

// Accept all as the consent actions define it, for the vendors the configuration selects.
function acceptAll(selection) {
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
const none = { purposeConsents: [], purposeLegitimateInterests: [], vendorConsents: [],
  vendorLegitimateInterests: [], specialFeatureOptins: [] };

test('the facade\'s strings for the real vendor list decode as its decisions define', () => {
  const decisions = [
    ['accept all for every vendor', acceptAll(null), 'FR', 987],
    ['accept all for a selection', acceptAll([1, 8, 755, 999999]), 'US', 3],
    ['reject all', none, 'US', 987],
  ];
  decisions.forEach(([what, expected, country, allowed], i) => {
    const model = TCString.decode(lines[2 * i + 1]);
    for (const [field, list] of Object.entries(expected)) assert.deepEqual(ids(model[field]), list, `${what} ${field}`);
    assert.deepEqual([model.vendorListVersion, model.policyVersion, model.cmpId, model.publisherCountryCode],
      [gvl.vendorListVersion, gvl.tcfPolicyVersion, 471, country], what);
    // The vendor segment carries segment type 2: allowed vendors, the whole selection.
    assert.equal(ids(model.vendorsAllowed).length, allowed, what);
  });
});
