// `quillet demo` end to end: the facade, the web host and a real browser, with the embedded CDN
// and consent API on loopback and a temporary state folder.
import { execFileSync, spawnSync } from 'node:child_process';
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
  // The document the host last announced is the one shown.
  await page.waitForFunction((k) => {
    const layer = document.querySelector(`.layer[data-screen="${k}"]:not([hidden])`);
    return layer && layer.dataset.loaded !== undefined && layer.dataset.loaded === layer.dataset.version;
  }, kind, { timeout: 20000 });
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

// The host page's ad slot asks the page's __tcfapi through postMessage only; waits until it
// shows `status`, and gives the vendors it says have consent.
async function adSlotHears(page, status) {
  await page.waitForSelector('#ad-slot');
  const frame = await (await page.$('#ad-slot')).contentFrame();
  await frame.waitForFunction((s) => document.getElementById('event-status').textContent === s,
    status, { timeout: 20000 });
  return (await frame.locator('#vendor-consents').textContent()).split(',').filter(Boolean).map(Number);
}

// The ad slot's vendors once it shows `count` of them.
const adSlotCount = (page, count) => page.waitForFunction((n) => {
  const slot = document.getElementById('ad-slot').contentDocument;
  return slot.getElementById('vendor-consents').textContent.split(',').filter(Boolean).length === n;
}, count);

test('first visit: view all, accept all as the ad slot hears it, Reject All from the page, reload, restart', { timeout: 180000 }, async () => {
  const state = stateFolder();
  let demo = await Demo.start(['--state', state]);
  const page = await openHost(demo, 'banner');
  assert.deepEqual(await adSlotHears(page, 'cmpuishown'), []);
  const banner = await showing(page, 'banner');
  // The banner fades in (a cross-dissolve).
  assert.ok(await page.locator('.layer[data-screen="banner"]').evaluate((e) => e.classList.contains('fade')));
  await page.screenshot({ path: join(artifacts, 'demo-banner.png') });
  // "View all data processing activities" unfolds the full list and "Hide list" folds it.
  const display = (id) => banner.locator(id).evaluate((e) => getComputedStyle(e).display);
  const count = Number(/\((\d+)\)/.exec(await banner.locator('#qlt-view-all').textContent())[1]);
  await banner.locator('#qlt-view-all').click();
  assert.deepEqual([await display('#qlt-stacks-all'), await display('#qlt-view-all')], ['block', 'none']);
  assert.deepEqual(await banner.locator('#qlt-hide-all').evaluate((e) =>
    [e.getAttribute('aria-expanded'), e.getAttribute('aria-controls')]), ['true', 'qlt-stacks-all']);
  assert.ok(count > 3 && await banner.locator('#qlt-stacks-all li').count() === count, String(count));
  await banner.locator('#qlt-hide-all').click();
  assert.deepEqual([await display('#qlt-stacks-all'), await display('#qlt-view-all')], ['none', 'inline']);

  // A second tab on the same host sees the same screen, and sees it go.
  const other = await openHost(demo, 'banner');
  await page.click('button[data-action="onAcceptAll"]');
  const accepted = (await demo.waitFor(/^stored TC String: (\S+)/))[1];
  await page.waitForSelector('body[data-top="none"]');
  await other.waitForSelector('body[data-top="none"]');
  await other.close();
  assert.equal(posted(demo, 'accepted'), 1);
  assert.equal(demo.count(/v1\/analytics\/events/), 1);
  assert.equal(ids(TCString.decode(accepted).purposeConsents).length, 11);
  const vendors = ids(TCString.decode(accepted).vendorConsents);
  assert.ok(vendors.length > 0);
  await adSlotCount(page, vendors.length);
  assert.deepEqual(await adSlotHears(page, 'useractioncomplete'), vendors);

  // The page's own control reopens the choices: the second layer, with them switched on; its
  // Reject All withdraws them, and the focus goes back to the control.
  await page.click('#actions button:text("Privacy choices")');
  await showing(page, 'secondLayer');
  await expectAttribute(page, 'secondLayer', '#purpose-consent-11', 'aria-checked', 'true');
  const next = demo.lines.length;
  await tap(page, 'secondLayer', '#reject-all');
  const rejected = (await demo.waitFor(/^stored TC String: (\S+)/, { from: next }))[1];
  assert.deepEqual(ids(TCString.decode(rejected).vendorConsents), []);
  await page.waitForSelector('body[data-top="none"]');
  await adSlotCount(page, 0);
  assert.deepEqual(await adSlotHears(page, 'useractioncomplete'), []);
  await page.waitForFunction(() => document.activeElement?.textContent === 'Privacy choices');
  // The page's own function answers too: an unknown command and version 1 fail, a listener
  // that throws does not keep the next from its data, ping is loaded.
  assert.deepEqual(await page.evaluate(() => new Promise((resolve) => {
    const out = [];
    window.__tcfapi('noSuchCommand', 2, (value, ok) => out.push(ok));
    window.__tcfapi('addEventListener', 2, () => { throw new Error('a broken listener'); });
    window.__tcfapi('addEventListener', 2, (data, ok) => out.push(data.eventStatus, ok));
    window.__tcfapi('ping', 1, (value, ok) => out.push(value, ok));
    window.__tcfapi('ping', 2, (value, ok) => { out.push(value.cmpStatus, value.displayStatus); resolve(out); });
  })), [false, 'useractioncomplete', true, null, false, 'loaded', 'hidden']);
  await page.reload();
  await page.waitForFunction(() => document.getElementById('status')?.textContent === 'Nothing is presented.');
  assert.equal(await page.locator('.layer').count(), 0);
  await page.close();
  await demo.stop();

  demo = await Demo.start(['--state', state]);
  await demo.waitFor(new RegExp(`^start-up done; stored TC String: ${rejected}`));
  const again = await openHost(demo);
  await again.waitForFunction(() => document.getElementById('status').textContent === 'Nothing is presented.');
  assert.equal(await again.locator('.layer').count(), 0);
  assert.deepEqual(await adSlotHears(again, 'tcloaded'), []);
  await again.close();
  const { signal, code } = await demo.stop();
  assert.ok(code === 0 || signal === null, `demo ended with ${code} ${signal}`);
});

// Consent starts off and legitimate interest on; the purpose details switch what the vendors tab
// then shows; a vendor's details switch its legitimate interests; Save posts it all as switched,
// and --manage shows it again.
test('customised choices are posted as switched; --manage shows them again', { timeout: 180000 }, async () => {
  const state = stateFolder();
  let demo = await Demo.start(['--state', state]);
  const page = await openHost(demo, 'banner');
  await page.click('button[data-action="onCustomize"]');
  await showing(page, 'secondLayer');
  for (const id of ['#purpose-consent-1', '#purpose-consent-3', '#sf-master-1']) await tapIn(page, 'secondLayer', id);
  await tap(page, 'secondLayer', '#read-more-2');
  await showing(page, 'purposeDetails');
  await tapIn(page, 'purposeDetails', '#master-consent');
  await tap(page, 'purposeDetails', '#close');
  let second = await showing(page, 'secondLayer');
  await page.waitForFunction(() => history.state === null);  // the closed sheet's entry is gone
  await tap(page, 'secondLayer', '#expand-2');
  await expectAttribute(page, 'secondLayer', '#expand-2', 'aria-expanded', 'true');
  const purpose2 = await second.locator('[id^="purpose-vendor-2-"]').evaluateAll((toggles) =>
    toggles.map((t) => [Number(t.id.split('-').at(-1)), t.getAttribute('aria-checked')]));
  assert.ok(purpose2.length > 3 && purpose2.every(([, on]) => on === 'true'), String(purpose2));
  await tapIn(page, 'secondLayer', '#segment-1');
  for (const [id] of purpose2) await expectAttribute(page, 'secondLayer', `#vendor-${id}`, 'aria-checked', 'true');
  second = await showing(page, 'secondLayer');
  await tapIn(page, 'secondLayer', '#vendor-8');
  await page.screenshot({ path: join(artifacts, 'demo-vendors.png') });
  // Vendor 8's details: one legitimate-interest purpose off keeps the master on; the master off
  // switches them all off.
  const index = await second.locator('#vendor-row-8 a.qlt-link').getAttribute('id');
  await tap(page, 'secondLayer', `#${index}`);
  await showing(page, 'vendorDetails');
  await tapIn(page, 'vendorDetails', '#li-fold');
  await tapIn(page, 'vendorDetails', '#li-7');
  await expectAttribute(page, 'vendorDetails', '#li-7', 'aria-checked', 'false');
  await expectAttribute(page, 'vendorDetails', '#li-master', 'aria-checked', 'true');
  await tapIn(page, 'vendorDetails', '#li-master');
  await expectAttribute(page, 'vendorDetails', '#li-2', 'aria-checked', 'false');
  await tapIn(page, 'vendorDetails', '#close');
  await showing(page, 'secondLayer');
  await tap(page, 'secondLayer', '#save');
  const text = (await demo.waitFor(/v1\/consent \{"tcString":"([^"]+)".*"eventType":"customized"/))[1];
  const model = TCString.decode(text);
  assert.deepEqual(ids(model.purposeConsents), [1, 2, 3]);
  assert.deepEqual(ids(model.vendorConsents), [...new Set([8, ...purpose2.map(([id]) => id)])].sort((a, b) => a - b));
  assert.deepEqual(ids(model.specialFeatureOptins), [1]);
  // Legitimate interest started on for every vendor that declares it; vendor 8's is now off.
  const legitimate = ids(model.vendorLegitimateInterests);
  assert.ok(!legitimate.includes(8) && legitimate.includes(11) && legitimate.includes(15), String(legitimate));
  await page.close();
  await demo.stop();

  demo = await Demo.start(['--state', state, '--manage']);
  const manage = await openHost(demo, 'secondLayer');
  for (const [id, on] of [[1, 'true'], [2, 'true'], [3, 'true'], [4, 'false']]) {
    await expectAttribute(manage, 'secondLayer', `#purpose-consent-${id}`, 'aria-checked', on);
  }
  await tap(manage, 'secondLayer', '#reject-all');
  await demo.waitFor(/"eventType":"rejected"/);
  await manage.waitForSelector('body[data-top="none"]');
  await manage.close();
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

// The element at the middle of a box is the box's own: nothing covers it and it is in view.
async function reachable(page, selector) {
  return page.$$eval(selector, (elements) => elements.map((e) => {
    const r = e.getBoundingClientRect();
    const hit = document.elementFromPoint(r.left + r.width / 2, r.top + r.height / 2);
    return r.top >= 0 && r.left >= 0 && r.bottom <= innerHeight && r.right <= innerWidth &&
      (hit === e || e.contains(hit));
  }));
}

test('the banner fits every window from 320 x 320 up, every button in view; the example host', { timeout: 180000 }, async () => {
  const demo = await Demo.start(['--state', stateFolder()]);
  for (const [width, height] of [[320, 320], [390, 844], [844, 390], [640, 360], [1280, 800]]) {
    const page = await openHost(demo, 'banner');
    await page.setViewportSize({ width, height });
    const size = `${width} x ${height}`;
    await page.waitForFunction(() => document.querySelector('.card').getBoundingClientRect().bottom <= innerHeight);
    assert.deepEqual(await reachable(page, '.buttons button'), [true, true, true], size);
    assert.deepEqual(await reachable(page, '.card'), [true], size);
    // The text scrolls inside the card; it is not cut off, nor does the card leave room unused.
    const text = await page.$eval('.card iframe', (frame) => ({ shown: frame.clientHeight,
      content: frame.contentDocument.scrollingElement.scrollHeight, card: frame.parentNode.clientHeight }));
    assert.ok(text.shown >= text.content || text.card >= height - 33, `${size} ${JSON.stringify(text)}`);
    await page.screenshot({ path: join(artifacts, `demo-banner-${width}x${height}.png`) });
    await page.close();
  }
  // The example host runs the library against the same embedded servers.
  const [, cdn, api] = await demo.waitFor(/^Embedded CDN (\S+) and consent API (\S+)/);
  const printed = execFileSync(process.env.QUILLET_EXAMPLE_HOST, [cdn, api, 'demo'], { encoding: 'utf8', timeout: 60000 });
  assert.match(printed, /presented "Consent": a document of \d+ bytes/);
  const stored = /tapping "Accept All"\nstart-up complete; stored TC String: (\S+)/.exec(printed);
  assert.ok(stored, printed);
  assert.equal(ids(TCString.decode(stored[1]).vendorConsents).length, 30);
  await demo.stop();
});

const focusedId = (page) => page.evaluate(() => {
  const inner = document.activeElement?.contentDocument?.activeElement;
  return inner && inner !== document.activeElement.contentDocument.body ? inner.id : document.activeElement.id || document.activeElement.dataset?.action;
});

test('keyboard alone: Space, focus into each screen and back, Escape and Back close a sheet', { timeout: 180000 }, async () => {
  const demo = await Demo.start(['--state', stateFolder()]);
  const page = await openHost(demo, 'banner');
  const banner = await showing(page, 'banner');
  assert.deepEqual(await banner.locator('html').evaluate((e) => [e.lang, e.ownerDocument.title]), ['en', 'Consent']);
  // Focus is in the banner; "View all" gives its place to "Hide list", which reads as expanded.
  await page.waitForFunction(() => document.activeElement?.tagName === 'IFRAME');
  assert.equal(await focusedId(page), 'qlt-view-all');
  await page.keyboard.press(' ');
  await page.waitForFunction(() => document.querySelector('.layer iframe').contentDocument.activeElement.id === 'qlt-hide-all');
  assert.equal(await banner.locator('#qlt-hide-all').getAttribute('aria-expanded'), 'true');
  await page.keyboard.press('Escape');  // a decision is due: the banner stays
  assert.equal(await page.evaluate(() => document.body.dataset.top), 'banner');
  // Tab reaches the buttons, wraps around inside the banner and never reaches the page below.
  const stops = new Set();
  for (let i = 0; i < 12; ++i) {
    await page.keyboard.press('Tab');
    assert.ok(await page.evaluate(() => document.querySelector('.layer').contains(document.activeElement)));
    stops.add(await focusedId(page));
  }
  assert.ok(stops.has('onAcceptAll') && stops.has('qlt-hide-all'), [...stops].join());
  await page.focus('button[data-action="onCustomize"]');
  await page.keyboard.press('Enter');
  await showing(page, 'secondLayer');
  await page.waitForFunction(() => document.querySelector('[data-screen="secondLayer"] iframe') === document.activeElement);
  // Space works the switches, the tabs and "Show vendors", which names its purpose.
  const frame = () => page.frameLocator('.layer[data-screen="secondLayer"] iframe');
  await frame().locator('#purpose-consent-1').focus();
  await page.keyboard.press(' ');
  await expectAttribute(page, 'secondLayer', '#purpose-consent-1', 'aria-checked', 'true');
  assert.match(await frame().locator('#expand-2').textContent(), /^Show vendors \(\d+\): .+/);
  await frame().locator('#expand-2').focus();
  await page.keyboard.press(' ');
  await expectAttribute(page, 'secondLayer', '#expand-2', 'aria-expanded', 'true');
  assert.equal(await focusedId(page), 'expand-2');
  // A details sheet takes the focus and keeps it; Escape closes it and the focus comes back.
  await frame().locator('#read-more-3').focus();
  await page.keyboard.press('Enter');
  await showing(page, 'purposeDetails');
  await page.waitForFunction(() => document.querySelector('[data-screen="purposeDetails"] iframe') === document.activeElement);
  for (let i = 0; i < 25; ++i) {
    await page.keyboard.press('Tab');
    assert.equal(await page.evaluate(() => document.activeElement.closest('.layer')?.dataset.screen), 'purposeDetails');
  }
  await page.keyboard.press('Escape');
  await page.waitForFunction(() => document.body.dataset.top === 'secondLayer');
  await page.waitForFunction(() => document.activeElement?.contentDocument?.activeElement?.id === 'read-more-3');
  // The browser's Back closes the top sheet too.
  await page.keyboard.press('Enter');
  await showing(page, 'purposeDetails');
  await page.goBack();
  await page.waitForFunction(() => document.body.dataset.top === 'secondLayer');
  await tap(page, 'secondLayer', '#reject-all');
  await demo.waitFor(/"eventType":"rejected"/);
  await page.close();
  await demo.stop();
});

test('a restart keeps the disclosures, a refused one says why, a switch keeps the scroll', { timeout: 240000 }, async () => {
  const state = stateFolder();
  const seen = [];
  for (const run of [0, 1]) {
    const demo = await Demo.start(['--state', state]);
    const page = await openHost(demo, 'banner');
    await page.click('button[data-action="onCustomize"]');
    await showing(page, 'secondLayer');
    await tapIn(page, 'secondLayer', '#segment-1');
    const texts = [];
    for (let index = 0; index < 4; ++index) {
      await tap(page, 'secondLayer', `#vendor-details-${index}`);
      const details = await showing(page, 'vendorDetails');
      if (run === 0 && index === 0) {
        // The privacy policy is opened outside the screens, in a new tab.
        const policy = await details.locator('#policy').getAttribute('href');
        await browser.context.route(/^https?:\/\/(?!127\.0\.0\.1)/, (route) =>
          route.fulfill({ body: 'a privacy policy', contentType: 'text/plain' }));
        const [opened] = await Promise.all([browser.context.waitForEvent('page'), tap(page, 'vendorDetails', '#policy')]);
        await opened.waitForLoadState();
        assert.equal(opened.url(), policy);
        await opened.close();
        await browser.context.unrouteAll();
      }
      await tap(page, 'vendorDetails', '#disclosure');
      const disclosure = await showing(page, 'disclosure');
      await disclosure.locator('text=/Storage Entries|Domains|No Data/').first().waitFor();
      texts.push(await disclosure.locator('main').innerText());
      if (run === 0) await page.screenshot({ path: join(artifacts, `demo-disclosure-${index}.png`) });
      await tap(page, 'disclosure', '#close');
      await tap(page, 'vendorDetails', '#close');
      await showing(page, 'secondLayer');
    }
    assert.ok(texts.every((text) => !/did not provide|could not be loaded/.test(text)), texts.join('\n--\n'));
    assert.ok(texts.some((text) => /could not be read/.test(text)), texts.join('\n--\n'));
    assert.ok(demo.count(/\[WARN\] \[QLT-CMP:DeviceStorageDisclosureVC\] .* was refused .*maxAgeSeconds/) > 0);
    seen.push(texts);
    if (run === 1) {
      // A switch far down the vendors page changes in place: same document, same scroll.
      const second = await showing(page, 'secondLayer');
      const last = await second.locator('.qlt-toggle[id^="vendor-"]').last().getAttribute('id');
      await second.locator(`#${last}`).scrollIntoViewIfNeeded();
      const before = await second.locator('html').evaluate((e) => { window.quilletMark = 1; return e.ownerDocument.scrollingElement.scrollTop; });
      assert.ok(before > 500, String(before));
      await tap(page, 'secondLayer', `#${last}`);
      await expectAttribute(page, 'secondLayer', `#${last}`, 'aria-checked', 'true');
      const after = await second.locator('html').evaluate((e) => [window.quilletMark, e.ownerDocument.scrollingElement.scrollTop]);
      assert.deepEqual(after, [1, before]);
    }
    await page.close();
    await demo.stop();
  }
  assert.deepEqual(seen[1], seen[0]);
});

test('the demo names what it cannot use: a port, a configuration key', { timeout: 60000 }, async () => {
  const folder = stateFolder();
  const config = join(folder, 'typed.json');
  writeFileSync(config, JSON.stringify({ showRejectButton: 'true', selectedVendorIds: '1,2', vendorListVersion: 106.5, colour: 'red' }));
  const demo = await Demo.start(['--state', folder, '--config', config]);
  for (const key of ['"showRejectButton"', '"selectedVendorIds"', '"vendorListVersion"', 'unknown key "colour"']) {
    assert.ok(demo.stderr.includes(key), `${key}:\n${demo.stderr}`);
  }
  const port = new URL(demo.url).port;
  const run = (args) => spawnSync(process.env.QUILLET_CLI, ['demo', '--state', folder, ...args], { encoding: 'utf8', timeout: 20000, killSignal: 'SIGKILL' });
  const broken = join(folder, 'broken.json');
  writeFileSync(broken, '{"showRejectButton": tru');
  const taken = run(['--port', port, '--config', broken]);
  assert.equal(taken.status, 1, taken.stderr);
  assert.match(taken.stderr, /broken\.json is not JSON/);
  assert.match(taken.stderr, new RegExp(`cannot listen on 127.0.0.1:${port}`));
  const wrong = run(['--port', '99999']);
  assert.equal(wrong.status, 2);
  assert.match(wrong.stderr, /99999/);
  await demo.waitFor(/^presented Consent/, { ms: 60000 });
  await demo.stop();
});
