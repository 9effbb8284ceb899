// What the IAB's reference TC String library and `quillet decode` read from a string, in one
// comparable form: the fields both name, with id lists ascending and restrictions as sorted
// "purpose/type:vendors" texts. Shared by the interop tests and the differential run, with the
// seeded generator both use.

// A small deterministic generator, so that a failure can be reproduced: each call gives an
// integer in 0...below-1.
export function generator(seed) {
  let state = seed >>> 0;
  return (below) => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return state % below;
  };
}

// Ids whose flag is set in one of the reference library's vectors, ascending.
export function ids(vector) {
  const out = [];
  vector.forEach((value, id) => {
    if (value) out.push(id);
  });
  return out.sort((a, b) => a - b);
}

// The reference library refuses "=" padding, which the TCF does not use; give it the string
// without it.
export function withoutPadding(text) {
  return text.split('.').map((segment) => segment.replace(/=+$/, '')).join('.');
}

const scalars = ['cmpId', 'cmpVersion', 'consentScreen', 'consentLanguage', 'vendorListVersion',
  'policyVersion', 'isServiceSpecific', 'useNonStandardTexts', 'purposeOneTreatment',
  'publisherCountryCode'];
const lists = ['specialFeatureOptins', 'purposeConsents', 'purposeLegitimateInterests',
  'vendorConsents', 'vendorLegitimateInterests'];

// A string may name one purpose and type in several entries; what they restrict is the union.
function restrictionTexts(restrictions) {
  const merged = new Map();
  for (const r of restrictions) {
    const key = `${r.purposeId}/${r.restrictionType}`;
    merged.set(key, new Set([...(merged.get(key) ?? []), ...r.vendors]));
  }
  return [...merged].filter(([, vendors]) => vendors.size > 0)
    .map(([key, vendors]) => `${key}:${[...vendors].sort((a, b) => a - b)}`).sort();
}

// The fields of a reference library TCModel.
export function referenceFields(model) {
  const fields = {
    version: model.version,
    created: model.created.toISOString(),
    lastUpdated: model.lastUpdated.toISOString(),
  };
  for (const field of scalars) fields[field] = model[field];
  for (const field of lists) fields[field] = ids(model[field]);
  fields.vendorsDisclosed = ids(model.vendorsDisclosed);
  fields.vendorsAllowed = ids(model.vendorsAllowed);
  const vector = model.publisherRestrictions;
  fields.publisherRestrictions = restrictionTexts(vector.getRestrictions()
    .map((r) => ({ purposeId: r.purposeId, restrictionType: r.restrictionType,
      vendors: vector.getVendors(r).sort((a, b) => a - b) })));
  // The reference library has no flag for a publisher TC segment; an empty one reads as absent.
  fields.publisherPurposesConsent = ids(model.publisherConsents);
  fields.publisherPurposesLegitimateInterests = ids(model.publisherLegitimateInterests);
  fields.numCustomPurposes = model.numCustomPurposes;
  fields.publisherCustomPurposesConsent = ids(model.publisherCustomConsents);
  fields.publisherCustomPurposesLegitimateInterests = ids(model.publisherCustomLegitimateInterests);
  return fields;
}

// The same fields of one object that `quillet decode` prints.
export function ourFields(json) {
  const fields = { version: json.version, created: json.created, lastUpdated: json.lastUpdated };
  for (const field of scalars) fields[field] = json[field];
  for (const field of lists) fields[field] = json[field];
  fields.vendorsDisclosed = json.vendorsDisclosed ?? [];
  fields.vendorsAllowed = json.vendorsAllowed ?? [];
  fields.publisherRestrictions = restrictionTexts(json.publisherRestrictions);
  fields.publisherPurposesConsent = json.publisherPurposesConsent ?? [];
  fields.publisherPurposesLegitimateInterests = json.publisherPurposesLegitimateInterests ?? [];
  fields.numCustomPurposes = json.numCustomPurposes ?? 0;
  fields.publisherCustomPurposesConsent = json.publisherCustomPurposesConsent ?? [];
  fields.publisherCustomPurposesLegitimateInterests =
    json.publisherCustomPurposesLegitimateInterests ?? [];
  return fields;
}

// The names of the fields whose values differ.
export function differingFields(ours, reference) {
  return Object.keys(reference)
    .filter((field) => JSON.stringify(ours[field]) !== JSON.stringify(reference[field]));
}
