// The quillet command and the facade against the IAB's reference TC String library: strings
// that `quillet encode` writes decode there to the same fields; `quillet decode` and
// `quillet inapp` read the sample strings as it reads them; disclosed vendors segments go both
// ways; and the strings the facade stores for the real vendor list decode as its decisions define.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { GVL, Segment, TCModel, TCString } from '@iabtechlabtcf/core';
import { generator, ids, ourFields, referenceFields, withoutPadding } from './reference.mjs';

const cli = process.env.QUILLET_CLI;
const testdata = process.env.QUILLET_TESTDATA_DIR;
assert.ok(cli && testdata, 'QUILLET_CLI and QUILLET_TESTDATA_DIR must be set (ctest sets them)');
const read = (name) => fs.readFileSync(path.join(testdata, name), 'utf8');

function quillet(args, input) {
  const run = spawnSync(cli, args, { input, encoding: 'utf8' });
  assert.equal(run.status, 0, `quillet ${args.join(' ')}: ${run.stderr}`);
  return run.stdout.trim();
}

const ascending = (list) => [...new Set(list)].sort((a, b) => a - b);
// What the encoder keeps of an id list: ids 1..max, each once, ascending.
const kept = (list, max) => ascending(list.filter((id) => id >= 1 && id <= max));
const randomList = (next, below, count) => Array.from({ length: count }, () => next(below));

function checkEncoded(parameters) {
  const text = quillet(['encode'], JSON.stringify(parameters));
  assert.equal(text.includes('.'), parameters.disclosedVendors !== undefined);
  const model = TCString.decode(text);
  const max = Math.max(...parameters.gvlVendorIds);
  const code = (c) => c.slice(0, 2).toUpperCase();
  const p = { cmpId: 471, cmpVersion: 1, consentScreen: 0, vendorListVersion: 1, policyVersion: 1,
    isServiceSpecific: false, useNonStandardStacks: false, purposeOneTreatment: false, ...parameters };
  assert.deepEqual(
    [model.version, model.created.getTime(), model.lastUpdated.getTime(), model.cmpId, model.cmpVersion,
      model.consentScreen, model.consentLanguage, model.vendorListVersion, model.policyVersion,
      model.isServiceSpecific, model.useNonStandardTexts, model.purposeOneTreatment, model.publisherCountryCode],
    [2, p.created * 100, p.created * 100, p.cmpId, p.cmpVersion, p.consentScreen, code(p.consentLanguage ?? 'EN'),
      p.vendorListVersion, p.policyVersion, p.isServiceSpecific, p.useNonStandardStacks, p.purposeOneTreatment,
      code(p.publisherCC ?? 'US')]);
  for (const [field, list, limit] of [['purposeConsents', 'purposeConsents', 24],
    ['purposeLegitimateInterests', 'purposeLegitimateInterests', 24], ['specialFeatureOptins', 'specialFeatureOptins', 12],
    ['vendorConsents', 'vendorConsents', max], ['vendorLegitimateInterests', 'vendorLegitimateInterests', max],
    // The vendor segment is written with segment type 2, which the TCF calls allowed vendors.
    ['vendorsAllowed', 'disclosedVendors', max]]) {
    assert.deepEqual(ids(model[field]), kept(parameters[list] ?? [], limit), field);
  }
  assert.deepEqual(ids(model.vendorsDisclosed), []);
  assert.equal(model.publisherRestrictions.getRestrictions().length, 0);
}

test('strings that quillet encode writes decode to the same fields', () => {
  const gvl = JSON.parse(read('vendor-list.json'));
  const vendors = Object.values(gvl.vendors);
  const vendorIds = vendors.map((vendor) => vendor.id);
  const union = (key) => ascending(vendors.flatMap((vendor) => vendor[key] ?? []));
  // Accept all for the sample vendor list.
  checkEncoded({
    purposeConsents: union('purposes'), purposeLegitimateInterests: union('legIntPurposes'),
    specialFeatureOptins: Object.keys(gvl.specialFeatures).map(Number), vendorConsents: vendorIds,
    vendorLegitimateInterests: vendors.filter((v) => v.legIntPurposes.length).map((v) => v.id),
    gvlVendorIds: vendorIds, vendorListVersion: gvl.vendorListVersion, policyVersion: gvl.tcfPolicyVersion,
    isServiceSpecific: true, consentLanguage: 'EN', created: 17000000000, disclosedVendors: vendorIds,
  });
  const next = generator(20261122);
  const letters = 'ABCDEFGHIJKLMNOPQRSTUVWXYZ';
  const code = () => letters[next(26)] + letters[next(26)].toLowerCase();
  for (let round = 0; round < 150; round += 1) {
    const max = 1 + next(2000);
    const parameters = {
      purposeConsents: randomList(next, 30, next(20)), purposeLegitimateInterests: randomList(next, 30, next(20)),
      specialFeatureOptins: randomList(next, 15, next(6)), vendorConsents: randomList(next, max + 50, next(400)),
      vendorLegitimateInterests: randomList(next, max + 50, next(100)), gvlVendorIds: [max, ...randomList(next, max, 3)],
      cmpId: 2 + next(4000), cmpVersion: next(4096), consentScreen: next(64), consentLanguage: code(),
      vendorListVersion: 1 + next(4000), policyVersion: 2 + next(4), isServiceSpecific: next(2) === 1,
      useNonStandardStacks: next(2) === 1, purposeOneTreatment: next(2) === 1, publisherCC: code(),
      created: 15000000000 + next(2000000000),
    };
    if (next(2) === 1) parameters.disclosedVendors = randomList(next, max + 20, next(200));
    checkEncoded(parameters);
  }
});

// "1" at index n exactly when the reference holds id n + 1, and no id beyond the text.
function assertBits(text, vector, where) {
  assert.match(text, /^[01]*$/, where);
  for (let i = 0; i < text.length; ++i) assert.equal(text[i] === '1', vector.has(i + 1), `${where} ${i + 1}`);
  assert.ok(vector.maxId <= text.length, `${where}: id ${vector.maxId} beyond ${text.length}`);
}

// Each restricted vendor's character is its restriction's type for that purpose, the strictest
// where the string names it under several; "_" for the others.
function restrictionTexts(restrictions) {
  const expected = {};
  for (const restriction of restrictions.getRestrictions()) {
    if (restriction.restrictionType > 2) continue;  // the undefined type restricts nothing
    const key = `IABTCF_PublisherRestrictions${restriction.purposeId}`;
    for (const vendor of restrictions.getVendors(restriction)) {
      expected[key] ??= [];
      const held = expected[key][vendor - 1];
      const type = String(restriction.restrictionType);
      expected[key][vendor - 1] = held !== undefined && held < type ? held : type;
    }
  }
  return Object.fromEntries(Object.entries(expected).map(([key, chars]) => [key, Array.from(chars, (c) => c ?? '_').join('')]));
}

test('quillet decode and quillet inapp read the sample strings as the reference library does', () => {
  const samples = read('tc-strings.txt').split('\n').filter(Boolean).map((line) => line.split('\t'))
    .filter(([, meta]) => /^(valid|example)/.test(meta) || meta.includes('policy-semantics'));
  let compared = 0;
  for (const [text, meta] of samples) {
    let model;
    try {
      model = TCString.decode(withoutPadding(text));
    } catch {
      continue;  // the reference library refuses a few edge cases that the TCF allows
    }
    assert.deepEqual(ourFields(JSON.parse(quillet(['decode', text]))), referenceFields(model), text);
    compared += 1;
    if (!/^(valid|example)/.test(meta)) continue;
    const values = JSON.parse(quillet(['inapp', text, '--gdpr-applies', '0', '--cmp-sdk-id', '31', '--cmp-sdk-version', '7']));
    const where = text.slice(0, 30);
    assert.deepEqual(
      [values.IABTCF_CmpSdkID, values.IABTCF_CmpSdkVersion, values.IABTCF_gdprApplies, values.IABTCF_TCString,
        values.IABTCF_PolicyVersion, values.IABTCF_PurposeOneTreatment, values.IABTCF_UseNonStandardStacks, values.IABTCF_PublisherCC],
      [31, 7, 0, text, model.policyVersion, Number(model.purposeOneTreatment), Number(model.useNonStandardTexts),
        model.publisherCountryCode], where);
    const bits = [['VendorConsents', 'vendorConsents'], ['VendorLegitimateInterests', 'vendorLegitimateInterests'],
      ['PurposeConsents', 'purposeConsents'], ['PurposeLegitimateInterests', 'purposeLegitimateInterests'],
      ['SpecialFeaturesOptIns', 'specialFeatureOptins']];
    if (values.IABTCF_PublisherConsent !== '') {
      bits.push(['PublisherConsent', 'publisherConsents'], ['PublisherLegitimateInterests', 'publisherLegitimateInterests'],
        ['PublisherCustomPurposesConsents', 'publisherCustomConsents'],
        ['PublisherCustomPurposesLegitimateInterests', 'publisherCustomLegitimateInterests']);
    }
    for (const [key, field] of bits) assertBits(values[`IABTCF_${key}`], model[field], `${where} ${key}`);
    assert.deepEqual(Object.fromEntries(Object.entries(values).filter(([key]) => key.startsWith('IABTCF_PublisherRestrictions'))),
      restrictionTexts(model.publisherRestrictions), `${where} restrictions`);
  }
  assert.ok(compared >= 60, `only ${compared} strings were compared`);
});

// Lists of every shape: dense runs (a range is shorter), scattered ids (a bit field is), one id.
function lists() {
  const next = generator(7);
  const out = [[1], [755], [1, 2, 3, 10, 11, 12, 755], Array.from({ length: 600 }, (_, i) => i + 1)];
  for (let round = 0; round < 30; ++round) {
    const size = 1 + next(1300);
    const share = next(1000);
    out.push(Array.from({ length: size }, (_, i) => i + 1).filter(() => next(1000) < share));
  }
  return out.filter((list) => list.length > 0);
}

test('disclosed vendors segments go both ways, in the shorter encoding', () => {
  const gvl = new GVL(JSON.parse(read('gvl-v3-106.json')));
  const known = Object.keys(gvl.vendors).map(Number);
  for (const list of lists()) {
    const text = quillet(['encode', '--disclose-vendor-list'], JSON.stringify({ gvlVendorIds: list, created: 17000000000 }));
    assert.deepEqual(ids(TCString.decode(text).vendorsDisclosed), list, text);
    // The shorter of the two encodings: bits of the range entries against the bit field's.
    const starts = list.filter((id, i) => i === 0 || list[i - 1] !== id - 1);
    const rangeBits = 12 + starts.reduce((bits, start) => bits + (list.includes(start + 1) ? 33 : 17), 0);
    assert.equal(JSON.parse(quillet(['decode', text])).vendorsDisclosedIsRange, rangeBits < Math.max(...list), text);

    const model = new TCModel(gvl);
    model.cmpId = 31;
    model.cmpVersion = 2;
    const disclosed = list.filter((id) => known.includes(id));
    model.vendorsDisclosed.set(disclosed);
    const theirs = TCString.encode(model, { segments: [Segment.CORE, Segment.VENDORS_DISCLOSED] });
    assert.deepEqual(JSON.parse(quillet(['decode', theirs])).vendorsDisclosed ?? [], disclosed, theirs);
  }
});

// testdata/golden/facade-strings.txt, kept by the facade test: each configuration, then the
// string the facade stored for its decision on the real vendor list.
test('the facade\'s strings for the real vendor list decode as its decisions define', () => {
  const gvl = JSON.parse(read('gvl-v3-106.json'));
  const lines = read('golden/facade-strings.txt').split('\n');
  const integers = (list) => (Array.isArray(list) && list.every(Number.isInteger) ? list : []);
  const maxVendorId = Math.max(...Object.keys(gvl.vendors).map(Number));  // the string's range
  // Accept all as the consent actions define it, for the vendors the configuration selects.
  const acceptAll = (selection) => {
    const named = Object.values(gvl.vendors).filter((v) => typeof v.name === 'string' && v.name !== '');
    const vendors = selection ? named.filter((v) => selection.includes(v.id)) : named;
    const vendorIds = selection ?? vendors.map((v) => v.id);
    const entry = (id) => gvl.vendors[String(id)] ?? {};
    const declared = ascending(vendors.flatMap((v) => [...integers(v.purposes), ...integers(v.legIntPurposes)]));
    const legInt = ascending(vendorIds.flatMap((id) => integers(entry(id).legIntPurposes)));
    return {
      purposeConsents: ascending(vendorIds.flatMap((id) => integers(entry(id).purposes))),
      purposeLegitimateInterests: Object.values(gvl.purposes).map((p) => p.id)
        .filter((id) => declared.includes(id) && legInt.includes(id)),
      vendorConsents: ascending(vendorIds.filter((id) => id <= maxVendorId)),
      vendorLegitimateInterests: ascending(vendorIds.filter((id) => integers(entry(id).legIntPurposes).length > 0)),
      specialFeatureOptins: ascending(Object.keys(gvl.specialFeatures).map(Number)),
    };
  };
  const none = Object.fromEntries(Object.keys(acceptAll(null)).map((key) => [key, []]));
  [['accept all for every vendor', acceptAll(null), 'FR', 987],
    ['accept all for a selection', acceptAll([1, 8, 755, 999999]), 'US', 3],
    ['reject all', none, 'US', 987]].forEach(([what, expected, country, allowed], i) => {
    const model = TCString.decode(lines[2 * i + 1]);
    for (const [field, list] of Object.entries(expected)) assert.deepEqual(ids(model[field]), list, `${what} ${field}`);
    assert.deepEqual([model.vendorListVersion, model.policyVersion, model.cmpId, model.publisherCountryCode],
      [gvl.vendorListVersion, gvl.tcfPolicyVersion, 471, country], what);
    // The vendor segment carries segment type 2: allowed vendors, the whole selection.
    assert.equal(ids(model.vendorsAllowed).length, allowed, what);
  });
});
