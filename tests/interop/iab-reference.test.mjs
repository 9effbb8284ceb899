// Cross-checks the quillet command against the IAB's reference TC String library: strings that
// `quillet encode` writes must decode there to the same fields, and `quillet decode` must read
// the sample strings as the reference library reads them.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { TCString } from '@iabtechlabtcf/core';
import { generator, ids, ourFields, referenceFields, withoutPadding } from './reference.mjs';

const cli = process.env.QUILLET_CLI;
const testdata = process.env.QUILLET_TESTDATA_DIR;
assert.ok(cli && testdata, 'QUILLET_CLI and QUILLET_TESTDATA_DIR must be set (ctest sets them)');

function run(args, input) {
  const result = spawnSync(cli, args, { input, encoding: 'utf8' });
  return { status: result.status, out: result.stdout, err: result.stderr };
}

function encode(parameters) {
  const { status, out, err } = run(['encode'], JSON.stringify(parameters));
  assert.equal(status, 0, `quillet encode failed: ${err}`);
  return out.trim();
}


// What the encoder keeps of an id list: ids 1..max, each once, ascending.
function kept(list, max) {
  return [...new Set(list.filter((id) => id >= 1 && id <= max))].sort((a, b) => a - b);
}

function randomList(next, below, count) {
  return Array.from({ length: count }, () => next(below));
}

function checkEncoded(parameters) {
  const text = encode(parameters);
  const [core, segment] = text.split('.');
  assert.equal(segment !== undefined, parameters.disclosedVendors !== undefined);
  const model = TCString.decode(text);
  const max = Math.max(...parameters.gvlVendorIds);
  const expectedCode = (code) => code.slice(0, 2).toUpperCase();
  assert.equal(model.version, 2);
  assert.equal(model.created.getTime(), parameters.created * 100);
  assert.equal(model.lastUpdated.getTime(), parameters.created * 100);
  assert.equal(model.cmpId, parameters.cmpId ?? 471);
  assert.equal(model.cmpVersion, parameters.cmpVersion ?? 1);
  assert.equal(model.consentScreen, parameters.consentScreen ?? 0);
  assert.equal(model.consentLanguage, expectedCode(parameters.consentLanguage ?? 'EN'));
  assert.equal(model.vendorListVersion, parameters.vendorListVersion ?? 1);
  assert.equal(model.policyVersion, parameters.policyVersion ?? 1);
  assert.equal(model.isServiceSpecific, parameters.isServiceSpecific ?? false);
  assert.equal(model.useNonStandardTexts, parameters.useNonStandardStacks ?? false);
  assert.equal(model.purposeOneTreatment, parameters.purposeOneTreatment ?? false);
  assert.equal(model.publisherCountryCode, expectedCode(parameters.publisherCC ?? 'US'));
  assert.deepEqual(ids(model.purposeConsents), kept(parameters.purposeConsents ?? [], 24));
  assert.deepEqual(ids(model.purposeLegitimateInterests),
                   kept(parameters.purposeLegitimateInterests ?? [], 24));
  assert.deepEqual(ids(model.specialFeatureOptins), kept(parameters.specialFeatureOptins ?? [], 12));
  assert.deepEqual(ids(model.vendorConsents), kept(parameters.vendorConsents ?? [], max));
  assert.deepEqual(ids(model.vendorLegitimateInterests),
                   kept(parameters.vendorLegitimateInterests ?? [], max));
  assert.equal(model.publisherRestrictions.getRestrictions().length, 0);
  // The vendor segment is written with segment type 2, which the TCF calls allowed vendors.
  assert.deepEqual(ids(model.vendorsAllowed), kept(parameters.disclosedVendors ?? [], max));
  assert.deepEqual(ids(model.vendorsDisclosed), []);
  return core;
}

test('a fully specified string decodes to the same fields', () => {
  checkEncoded({
    purposeConsents: [1, 2, 3, 4, 7, 10, 30],
    purposeLegitimateInterests: [2, 7, 8, 9, 10],
    specialFeatureOptins: [1, 2],
    vendorConsents: [1, 8, 755, 900],
    vendorLegitimateInterests: [8, 91, 755],
    gvlVendorIds: [1, 8, 91, 755],
    cmpId: 471,
    cmpVersion: 3,
    consentScreen: 2,
    consentLanguage: 'fr',
    vendorListVersion: 106,
    policyVersion: 5,
    isServiceSpecific: true,
    useNonStandardStacks: false,
    purposeOneTreatment: true,
    publisherCC: 'de',
    created: 17325504003,
    disclosedVendors: [1, 8, 91],
  });
});

test('an accept-all string for the sample vendor list decodes to the same fields', () => {
  const gvl = JSON.parse(fs.readFileSync(path.join(testdata, 'vendor-list.json'), 'utf8'));
  const vendors = Object.values(gvl.vendors);
  const vendorIds = vendors.map((vendor) => vendor.id);
  const union = (key) => [...new Set(vendors.flatMap((vendor) => vendor[key] ?? []))];
  checkEncoded({
    purposeConsents: union('purposes'),
    purposeLegitimateInterests: union('legIntPurposes'),
    specialFeatureOptins: Object.keys(gvl.specialFeatures).map(Number),
    vendorConsents: vendorIds,
    vendorLegitimateInterests: vendors.filter((v) => v.legIntPurposes.length).map((v) => v.id),
    gvlVendorIds: vendorIds,
    vendorListVersion: gvl.vendorListVersion,
    policyVersion: gvl.tcfPolicyVersion,
    isServiceSpecific: true,
    consentLanguage: 'EN',
    created: 17000000000,
    disclosedVendors: vendorIds,
  });
});

test('random strings decode to the same fields', () => {
  const next = generator(20261122);
  const letters = 'ABCDEFGHIJKLMNOPQRSTUVWXYZ';
  const code = () => letters[next(26)] + letters[next(26)].toLowerCase();
  for (let round = 0; round < 150; round += 1) {
    const max = 1 + next(2000);
    const parameters = {
      purposeConsents: randomList(next, 30, next(20)),
      purposeLegitimateInterests: randomList(next, 30, next(20)),
      specialFeatureOptins: randomList(next, 15, next(6)),
      vendorConsents: randomList(next, max + 50, next(400)),
      vendorLegitimateInterests: randomList(next, max + 50, next(100)),
      gvlVendorIds: [max, ...randomList(next, max, 3)],
      cmpId: 2 + next(4000),
      cmpVersion: next(4096),
      consentScreen: next(64),
      consentLanguage: code(),
      vendorListVersion: 1 + next(4000),
      policyVersion: 2 + next(4),
      isServiceSpecific: next(2) === 1,
      useNonStandardStacks: next(2) === 1,
      purposeOneTreatment: next(2) === 1,
      publisherCC: code(),
      created: 15000000000 + next(2000000000),
    };
    if (next(2) === 1) parameters.disclosedVendors = randomList(next, max + 20, next(200));
    checkEncoded(parameters);
  }
});

test('quillet decode reads the sample strings as the reference library does', () => {
  const samples = fs.readFileSync(path.join(testdata, 'tc-strings.txt'), 'utf8')
    .split('\n').filter(Boolean).map((line) => {
      const [text, meta] = line.split('\t');
      return { text, status: meta.split(';')[0], policy: meta.includes('policy-semantics') };
    })
    .filter((s) => s.status === 'valid' || s.status === 'example' || s.policy);

  let compared = 0;
  for (const sample of samples) {
    let model;
    try {
      model = TCString.decode(withoutPadding(sample.text));
    } catch {
      continue;  // the reference library refuses a few edge cases that the TCF allows
    }
    const { status, out, err } = run(['decode', sample.text]);
    assert.equal(status, 0, `${sample.text}: ${err}`);
    assert.deepEqual(ourFields(JSON.parse(out)), referenceFields(model), sample.text);
    compared += 1;
  }
  assert.ok(compared >= 60, `only ${compared} strings were compared`);
});
