// `quillet demo` end to end: the facade, the web host and a real browser, with the embedded CDN
// and consent API on loopback and a temporary state folder.
import { execFileSync } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync, mkdirSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { TCString } from '@iabtechlabtcf/core';
import { launch } from './browser.mjs';
import { Demo } from './demo.mjs';

const artifacts = process.env.QUILLET_ARTIFACTS_DIR ?? join(tmpdir(), 'quillet-artifacts');
let browser;
const folders = [];

before(async () => {
  mkdirSync(artifacts, { recursive: true });
  browser = await launch();
});
after(async () => {
  await Demo.killAll();
  await browser?.close();
  for (const folder of folders) rmSync(folder, { recursive: true, force: true });
});

function stateFolder() {
  const folder = mkdtempSync(join(tmpdir(), 'quillet-demo-'));
  folders.push(folder);
  return folder;
}

const ids = (vector) => { const out = []; vector.forEach((on, id) => { if (on) out.push(id); }); return out; };

// Opens the host page and waits until `kind` is the top visible screen with its document loaded.
async function openHost(demo, kind) {
  const page = await browser.context.newPage();
  page.dialogs = [];
  page.on('dialog', (dialog) => { page.dialogs.push(dialog.message()); dialog.dismiss(); });
  await page.goto(demo.url);
  if (kind) await showing(page, kind);
  return page;
}

async function showing(page, kind) {
  await page.waitForSelector(`body[data-top="${kind}"]`, { timeout: 20000 });
  await page.waitForSelector(`.layer[data-screen="${kind}"]:not([hidden])[data-loaded]`, { timeout: 20000 });
  return page.frameLocator(`.layer[data-screen="${kind}"] iframe`);
}

// Clicks a link in a screen's document. A click that lands while the document is being replaced
// reaches no document; the host page counts the taps it hands on, so such a click is told apart
// and made again. Gives the screen's loaded document version at the handled click.
async function tap(page, kind, selector) {
  const layer = page.locator(`.layer[data-screen="${kind}"]`);
  for (let attempt = 0; ; ++attempt) {
    const before = await layer.getAttribute('data-loaded');
    const handed = await page.evaluate(() => Number(document.body.dataset.taps || 0));
    await page.frameLocator(`.layer[data-screen="${kind}"] iframe`).locator(selector).click();
    const taken = await page
      .waitForFunction((n) => Number(document.body.dataset.taps || 0) > n, handed, { timeout: 2000 })
      .then(() => true, () => false);
    if (taken) return before;
    assert.ok(attempt < 3, `${kind} ${selector}: no tap reached the host page`);
  }
}

// Taps a link in the top screen's document and waits for the document to come back.
async function tapIn(page, kind, selector) {
  const before = await tap(page, kind, selector);
  // The document the host last asked for has loaded, and it is not the one tapped in.
  await page.waitForFunction(([k, b]) => {
    const el = document.querySelector(`.layer[data-screen="${k}"]`);
    return !el || (el.dataset.loaded !== b && el.dataset.loaded === el.dataset.version);
  }, [kind, before]);
}

// Waits until an attribute in a screen's document reads `value` (documents reload after a tap).
async function expectAttribute(page, kind, selector, name, value) {
  const frame = () => page.frameLocator(`.layer[data-screen="${kind}"] iframe`);
  const deadline = Date.now() + 10000;
  let seen;
  while (Date.now() < deadline) {
    seen = await frame().locator(selector).getAttribute(name, { timeout: 2000 }).catch(() => undefined);
    if (seen === value) return;
    await page.waitForTimeout(100);
  }
  assert.equal(seen, value, `${kind} ${selector} ${name}`);
}

const posted = (demo, type) => demo.count(new RegExp(`v1/consent .*"eventType":"${type}"`));

test('first visit, view all, accept all, reload and restart', { timeout: 180000 }, async () => {
  const state = stateFolder();
  let demo = await Demo.start(['--state', state]);
  const page = await openHost(demo, 'banner');
  const banner = await showing(page, 'banner');
  await page.screenshot({ path: join(artifacts, 'demo-banner.png') });
  await banner.locator('#qlt-view-all').click();
  assert.equal(await banner.locator('#qlt-stacks-all').evaluate((e) => getComputedStyle(e).display), 'block');
  await banner.locator('#qlt-hide-all').click();
  assert.equal(await banner.locator('#qlt-stacks-all').evaluate((e) => getComputedStyle(e).display), 'none');

  // A second tab on the same host sees the same screen, and sees it go.
  const other = await openHost(demo, 'banner');
  await page.click('button[data-action="onAcceptAll"]');
  await demo.waitFor(/"eventType":"accepted"/);
  await page.waitForSelector('body[data-top="none"]');
  await other.waitForSelector('body[data-top="none"]');
  await other.close();
  assert.equal(posted(demo, 'accepted'), 1);
  assert.equal(demo.count(/v1\/analytics\/events/), 1);
  const stored = (await demo.waitFor(/^stored TC String: (\S+)/))[1];
  assert.equal(ids(TCString.decode(stored).purposeConsents).length, 11);
  await page.reload();
  await page.waitForSelector('#status');
  await page.waitForFunction(() => document.getElementById('status').textContent === 'Nothing is presented.');
  assert.equal(await page.locator('.layer').count(), 0);
  await page.close();
  await demo.stop();

  demo = await Demo.start(['--state', state]);
  await demo.waitFor(new RegExp(`^start-up done; stored TC String: ${stored}`));
  const again = await openHost(demo);
  await again.waitForFunction(() => document.getElementById('status').textContent === 'Nothing is presented.');
  assert.equal(await again.locator('.layer').count(), 0);
  await again.close();
  const { signal, code } = await demo.stop();
  assert.ok(code === 0 || signal === null, `demo ended with ${code} ${signal}`);
});

test('customised choices are posted as switched; --manage shows them again', { timeout: 180000 }, async () => {
  const state = stateFolder();
  let demo = await Demo.start(['--state', state]);
  const page = await openHost(demo, 'banner');
  await page.click('button[data-action="onCustomize"]');
  let second = await showing(page, 'secondLayer');
  // Legitimate interest starts on; consent starts off.
  await tapIn(page, 'secondLayer', '#purpose-consent-1');
  await tapIn(page, 'secondLayer', '#purpose-consent-3');
  await tapIn(page, 'secondLayer', '#sf-master-1');
  await tapIn(page, 'secondLayer', '#segment-1');
  second = await showing(page, 'secondLayer');
  await tapIn(page, 'secondLayer', '#vendor-8');
  await page.screenshot({ path: join(artifacts, 'demo-vendors.png') });
  // Vendor 8's details: one legitimate-interest purpose off keeps the master on; the master off
  // switches them all off.
  const index = await second.locator('#vendor-row-8 a.qlt-link').getAttribute('id');
  await tap(page, 'secondLayer', `#${index}`);
  const details = await showing(page, 'vendorDetails');
  await tapIn(page, 'vendorDetails', '#li-fold');
  await tapIn(page, 'vendorDetails', '#li-7');
  await expectAttribute(page, 'vendorDetails', '#li-7', 'aria-checked', 'false');
  await expectAttribute(page, 'vendorDetails', '#li-master', 'aria-checked', 'true');
  await tapIn(page, 'vendorDetails', '#li-master');
  await expectAttribute(page, 'vendorDetails', '#li-2', 'aria-checked', 'false');
  await tapIn(page, 'vendorDetails', '#close');
  await showing(page, 'secondLayer');
  await tap(page, 'secondLayer', '#save');
  const customized = await demo.waitFor(/v1\/consent \{"tcString":"([^"]+)".*"eventType":"customized"/);
  const text = customized[1];
  const model = TCString.decode(text);
  assert.deepEqual(ids(model.purposeConsents), [1, 3]);
  assert.deepEqual(ids(model.vendorConsents), [8]);
  assert.deepEqual(ids(model.specialFeatureOptins), [1]);
  // Legitimate interest started on for every vendor that declares it; vendor 8's is now off.
  const legitimate = ids(model.vendorLegitimateInterests);
  assert.ok(!legitimate.includes(8), String(legitimate));
  assert.ok(legitimate.includes(11) && legitimate.includes(15), String(legitimate));
  await page.close();
  await demo.stop();

  demo = await Demo.start(['--state', state, '--manage']);
  const manage = await openHost(demo, 'secondLayer');
  await showing(manage, 'secondLayer');
  await expectAttribute(manage, 'secondLayer', '#purpose-consent-1', 'aria-checked', 'true');
  await expectAttribute(manage, 'secondLayer', '#purpose-consent-3', 'aria-checked', 'true');
  await expectAttribute(manage, 'secondLayer', '#purpose-consent-2', 'aria-checked', 'false');
  await tap(manage, 'secondLayer', '#reject-all');
  await demo.waitFor(/"eventType":"rejected"/);
  await manage.waitForSelector('body[data-top="none"]');
  await manage.close();
  await demo.stop();
});

test('the whole accept path with the keyboard alone', { timeout: 180000 }, async () => {
  const demo = await Demo.start(['--state', stateFolder()]);
  const page = await openHost(demo, 'banner');
  for (let i = 0; i < 40; ++i) {
    await page.keyboard.press('Tab');
    const action = await page.evaluate(() => document.activeElement?.dataset?.action);
    if (action === 'onAcceptAll') break;
  }
  assert.equal(await page.evaluate(() => document.activeElement.dataset.action), 'onAcceptAll');
  await page.keyboard.press('Enter');
  await demo.waitFor(/"eventType":"accepted"/);
  await page.close();
  await demo.stop();
});

test('a vendor\'s device storage disclosure opens from its details', { timeout: 180000 }, async () => {
  const demo = await Demo.start(['--state', stateFolder()]);
  const page = await openHost(demo, 'banner');
  await page.click('button[data-action="onCustomize"]');
  await showing(page, 'secondLayer');
  await tapIn(page, 'secondLayer', '#segment-1');
  await tap(page, 'secondLayer', '#vendor-details-0');
  const details = await showing(page, 'vendorDetails');
  // The privacy policy is opened outside the screens, in a new tab.
  const policy = await details.locator('#policy').getAttribute('href');
  await browser.context.route(/^https?:\/\/(?!127\.0\.0\.1)/, (route) =>
    route.fulfill({ body: 'a privacy policy', contentType: 'text/plain' }));
  const [opened] = await Promise.all([
    browser.context.waitForEvent('page'),
    tap(page, 'vendorDetails', '#policy'),
  ]);
  await opened.waitForLoadState();
  assert.equal(opened.url(), policy);
  await opened.close();
  await browser.context.unrouteAll();
  await tap(page, 'vendorDetails', '#disclosure');
  const disclosure = await showing(page, 'disclosure');
  await disclosure.locator('text=/Storage Entries|Domains|No Data/').first().waitFor();
  await page.screenshot({ path: join(artifacts, 'demo-disclosure.png') });
  await page.close();
  await demo.stop();
});

test('a hostile configuration runs no script', { timeout: 180000 }, async () => {
  const folder = stateFolder();
  const payload = '<script>window.__pwned=1</script><img src=x onerror="window.__pwned=2">"\'><b onmouseover="window.__pwned=3">';
  const config = join(folder, 'hostile.json');
  writeFileSync(config, JSON.stringify({
    logoUrl: 'javascript:window.__pwned=4', brandColor: 'red;}</style><script>window.__pwned=5</script>',
    showRejectButton: true, showCustomizeButton: true, acceptButtonText: payload,
    rejectButtonText: payload, manageButtonText: payload, customizeLinkId: payload,
    selectedVendorIds: [1, 2, 8], selectedPurposesIds: [1, 2, 3], vendorListVersion: 106,
    publisherCC: 'DE',
  }));
  const demo = await Demo.start(['--state', folder, '--config', config]);
  const page = await openHost(demo, 'banner');
  const banner = await showing(page, 'banner');
  await page.hover('button[data-action="onRejectAll"]');
  await banner.locator('a').last().hover();
  assert.equal(await page.evaluate(() => window.__pwned), undefined);
  assert.equal(await banner.locator('body').evaluate(() => window.__pwned), undefined);
  assert.equal(await page.locator('img').count(), 0);
  assert.deepEqual(page.dialogs, []);
  assert.equal(await page.locator('button[data-action="onAcceptAll"]').textContent(), payload);
  await page.close();
  await demo.stop();
});

test('the example host runs the library against the embedded servers', { timeout: 180000 }, async () => {
  const demo = await Demo.start(['--state', stateFolder()]);
  const [, cdn, api] = await demo.waitFor(/^Embedded CDN (\S+) and consent API (\S+)/);
  const printed = execFileSync(process.env.QUILLET_EXAMPLE_HOST, [cdn, api, 'demo'],
    { encoding: 'utf8', timeout: 60000 });
  assert.match(printed, /presented "Consent": a document of \d+ bytes/);
  const stored = /tapping "Accept All"\nstart-up complete; stored TC String: (\S+)/.exec(printed);
  assert.ok(stored, printed);
  assert.equal(ids(TCString.decode(stored[1]).vendorConsents).length, 30);
  await demo.stop();
});
