// `quillet inapp` against the IAB's reference library: for every sample string the reference
// library reads, the in-app values hold what it decodes.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { TCString } from '@iabtechlabtcf/core';

const cli = process.env.QUILLET_CLI;
const testdata = process.env.QUILLET_TESTDATA_DIR;
assert.ok(cli && testdata, 'QUILLET_CLI and QUILLET_TESTDATA_DIR must be set (ctest sets them)');

// "1" at index n exactly when the reference holds id n + 1, and no id beyond the text.
function assertBits(text, vector, where) {
  assert.match(text, /^[01]*$/, where);
  for (let i = 0; i < text.length; ++i) assert.equal(text[i] === '1', vector.has(i + 1), `${where} ${i + 1}`);
  assert.ok(vector.maxId <= text.length, `${where}: id ${vector.maxId} beyond ${text.length}`);
}

test('quillet inapp holds what the reference library decodes, for every sample string', () => {
  const samples = fs.readFileSync(path.join(testdata, 'tc-strings.txt'), 'utf8')
    .split('\n').filter(Boolean).map((line) => line.split('\t'))
    .filter(([, meta]) => /^(valid|example)/.test(meta)).map(([text]) => text);
  let compared = 0;
  for (const text of samples) {
    let model;
    try {
      model = TCString.decode(text);
    } catch {
      continue;  // the reference library refuses a few edge cases that the TCF allows
    }
    const run = spawnSync(cli, ['inapp', text, '--gdpr-applies', '0', '--cmp-sdk-id', '31',
      '--cmp-sdk-version', '7'], { encoding: 'utf8' });
    assert.equal(run.status, 0, `${text}: ${run.stderr}`);
    const values = JSON.parse(run.stdout);
    const where = text.slice(0, 30);
    assert.deepEqual(
      [values.IABTCF_CmpSdkID, values.IABTCF_CmpSdkVersion, values.IABTCF_gdprApplies,
        values.IABTCF_TCString, values.IABTCF_PolicyVersion, values.IABTCF_PurposeOneTreatment,
        values.IABTCF_UseNonStandardStacks, values.IABTCF_PublisherCC],
      [31, 7, 0, text, model.policyVersion, Number(model.purposeOneTreatment),
        Number(model.useNonStandardTexts), model.publisherCountryCode], where);
    assertBits(values.IABTCF_VendorConsents, model.vendorConsents, `${where} vendors`);
    assertBits(values.IABTCF_VendorLegitimateInterests, model.vendorLegitimateInterests, `${where} vendor LI`);
    assertBits(values.IABTCF_PurposeConsents, model.purposeConsents, `${where} purposes`);
    assertBits(values.IABTCF_PurposeLegitimateInterests, model.purposeLegitimateInterests, `${where} purpose LI`);
    assertBits(values.IABTCF_SpecialFeaturesOptIns, model.specialFeatureOptins, `${where} features`);
    if (values.IABTCF_PublisherConsent !== '') {
      assertBits(values.IABTCF_PublisherConsent, model.publisherConsents, `${where} publisher`);
      assertBits(values.IABTCF_PublisherLegitimateInterests, model.publisherLegitimateInterests, where);
      assertBits(values.IABTCF_PublisherCustomPurposesConsents, model.publisherCustomConsents, where);
      assertBits(values.IABTCF_PublisherCustomPurposesLegitimateInterests,
        model.publisherCustomLegitimateInterests, where);
    }
    // Each restricted vendor's character is its restriction's type for that purpose, the
    // strictest where the string names it under several; "_" for the others.
    const restrictions = model.publisherRestrictions;
    const expected = {};
    for (const restriction of restrictions.getRestrictions()) {
      if (restriction.restrictionType > 2) continue;  // the undefined type restricts nothing
      for (const vendor of restrictions.getVendors(restriction)) {
        const key = `IABTCF_PublisherRestrictions${restriction.purposeId}`;
        expected[key] ??= [];
        const type = String(restriction.restrictionType);
        const held = expected[key][vendor - 1];
        expected[key][vendor - 1] = held !== undefined && held < type ? held : type;
      }
    }
    const ours = Object.fromEntries(Object.entries(values)
      .filter(([key]) => key.startsWith('IABTCF_PublisherRestrictions')));
    assert.deepEqual(ours, Object.fromEntries(Object.entries(expected)
      .map(([key, chars]) => [key, Array.from(chars, (c) => c ?? '_').join('')])), `${where} restrictions`);
    compared += 1;
  }
  assert.ok(compared >= 50, `only ${compared} strings were compared`);
});
