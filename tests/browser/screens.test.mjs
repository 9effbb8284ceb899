// The screens' documents in a real browser: the switches' look, keyboard use, and hostile text
// that must never run.
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readdirSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { launch } from './browser.mjs';

const artifacts = process.env.QUILLET_ARTIFACTS_DIR ?? join(tmpdir(), 'quillet-artifacts');
let documents;
let browser;

before(async () => {
  documents = mkdtempSync(join(tmpdir(), 'quillet-screens-'));
  execFileSync(process.env.QUILLET_SCREEN_TOOL, [documents]);
  mkdirSync(artifacts, { recursive: true });
  browser = await launch();
});

after(async () => {
  await browser?.close();
  rmSync(documents, { recursive: true, force: true });
});

async function open(name) {
  const page = await browser.context.newPage();
  const dialogs = [];
  page.on('dialog', (dialog) => { dialogs.push(dialog.message()); dialog.dismiss(); });
  // Links of the library's own scheme go to the host, never to the network.
  await page.route('**/*', (route) => (route.request().url().startsWith('file:')
    ? route.continue() : route.abort()));
  await page.goto(`file://${join(documents, name)}`);
  page.dialogs = dialogs;
  return page;
}

test('switches look as specified: knob offset, track colour, opacity and a 0.18 s slide', async () => {
  const page = await open('purposes.html');
  const look = (id) => page.$eval(`#${id}`, (toggle) => {
    const knob = toggle.querySelector('.qlt-knob');
    const track = toggle.querySelector('.qlt-track');
    return {
      left: getComputedStyle(knob).left,
      track: getComputedStyle(track).backgroundColor,
      opacity: getComputedStyle(toggle).opacity,
      checked: toggle.getAttribute('aria-checked'),
      href: toggle.getAttribute('href'),
      transition: getComputedStyle(knob).transitionDuration,
    };
  });
  const essential = await look('essential');
  assert.deepEqual([essential.left, essential.track, essential.opacity, essential.checked, essential.href],
    ['25px', 'rgba(0, 64, 221, 0.2)', '0.8', 'true', null]);
  const off = await look('purpose-consent-1');
  assert.deepEqual([off.left, off.track, off.opacity, off.checked],
    ['2px', 'rgb(142, 142, 147)', '1', 'false']);
  // Purpose 2 was tapped just before rendering: its knob slides from 2 px to 25 px.
  const sliding = await look('purpose-consent-2');
  assert.equal(sliding.transition, '0.18s');
  assert.equal(sliding.track, 'rgb(0, 64, 221)');
  await page.waitForFunction(() =>
    getComputedStyle(document.querySelector('#purpose-consent-2 .qlt-knob')).left === '25px');
  await page.screenshot({ path: join(artifacts, 'purposes.png'), fullPage: true });
  await page.close();
});

for (const name of ['banner.html', 'purposes.html', 'vendor-details.html', 'purpose-details.html']) {
  test(`every control of ${name} is reachable with Tab and with the arrow keys`, async () => {
    const page = await open(name);
    await page.evaluate(() => document.activeElement?.blur());
    const controls = await page.$$eval('a[href], [tabindex="0"]',
      (elements) => elements.filter((e) => e.offsetParent !== null).map((e) => e.id || e.outerHTML));
    assert.ok(controls.length > 0);
    const reached = new Set();
    for (let i = 0; i < controls.length + 2; ++i) {
      await page.keyboard.press('Tab');
      const focused = await page.evaluate(() => {
        const e = document.activeElement;
        return { id: e.id || e.outerHTML, outline: getComputedStyle(e).outlineStyle };
      });
      reached.add(focused.id);
      if (controls.includes(focused.id)) assert.notEqual(focused.outline, 'none', focused.id);
    }
    for (const control of controls) assert.ok(reached.has(control), `Tab never reached ${control}`);
    if (name === 'banner.html') return page.close();  // the banner's script is its own

    // Down walks the same controls in the same order; Up walks back.
    await page.evaluate(() => document.activeElement?.blur());
    const walked = [];
    for (let i = 0; i < controls.length; ++i) {
      await page.keyboard.press('ArrowDown');
      walked.push(await page.evaluate(() => document.activeElement.id || document.activeElement.outerHTML));
    }
    assert.deepEqual(walked, controls);
    await page.keyboard.press('ArrowUp');
    assert.equal(await page.evaluate(() => document.activeElement.id || document.activeElement.outerHTML),
      controls.at(-2));
    if (name === 'purposes.html') {
      assert.equal(await page.getAttribute('[role="tablist"]', 'aria-label'), 'Sections');
      await page.focus('#segment-0');
      await page.keyboard.press('ArrowRight');
      assert.equal(await page.evaluate(() => document.activeElement.id), 'segment-1');
      assert.equal(await page.getAttribute('#segment-1', 'role'), 'tab');
    }
    await page.close();
  });
}

test('hostile text from the vendor list and the configuration never runs script', async () => {
  const hostile = readdirSync(documents).filter((name) => name.startsWith('hostile-'));
  assert.equal(hostile.length, 6);
  for (const name of hostile) {
    const page = await open(name);
    if (name === 'hostile-banner.html') await page.click('#qlt-view-all');
    // Pointer and focus events on every element, as a user moving over the screen would send.
    await page.evaluate(() => {
      for (const element of document.querySelectorAll('body *')) {
        for (const type of ['mouseover', 'mouseenter', 'mousemove']) {
          element.dispatchEvent(new MouseEvent(type, { bubbles: true }));
        }
        element.focus?.();
      }
    });
    const found = await page.evaluate(() => ({
      pwned: window.__pwned,
      scripts: document.scripts.length,
      images: document.images.length,
      handlers: [...document.querySelectorAll('*')].flatMap((e) => [...e.attributes]
        .filter((a) => a.name.startsWith('on'))
        .map((a) => `${e.id}:${a.name}`)),
      links: [...document.querySelectorAll('[href]')].map((e) => e.getAttribute('href'))
        .filter((href) => !/^(quillet:|https?:|mailto:|#)/i.test(href)),
    }));
    assert.equal(found.pwned, undefined, name);
    assert.deepEqual(page.dialogs, [], name);
    assert.equal(found.scripts, 1, name);
    assert.equal(found.images, 0, name);
    if (name === 'hostile-banner.html') {
      // The banner's own unfold links are the only handlers and script links.
      assert.deepEqual(found.handlers, ['qlt-view-all:onclick', 'qlt-hide-all:onclick']);
      assert.deepEqual(found.links, ['javascript:void(0)', 'javascript:void(0)']);
    } else {
      assert.deepEqual(found.handlers, [], name);
      assert.deepEqual(found.links, [], name);
    }
    await page.screenshot({ path: join(artifacts, name.replace('.html', '.png')), fullPage: true });
    await page.close();
  }
});
