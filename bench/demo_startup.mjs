// From `quillet demo` start, with the vendor list cached and no consent stored, to the banner
// visible in a browser that opens the host page as soon as the demo prints its address.
// Also reports the demo's own "presented ... ms after initialize" (library plus the loopback
// configuration fetch). Usage: node bench/demo_startup.mjs QUILLET_BINARY [RUNS]
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { launch } from '../tests/browser/browser.mjs';
import { Demo } from '../tests/browser/demo.mjs';

process.env.QUILLET_CLI = process.argv[2];
const runs = Number(process.argv[3] ?? 10);
const state = mkdtempSync(join(tmpdir(), 'quillet-bench-'));
const browser = await launch();
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

// The first run downloads and caches the vendor list.
const first = await Demo.start(['--state', state]);
await first.waitFor(/^presented Consent/);
await first.stop();

const visible = [];
const library = [];
for (let i = 0; i < runs; ++i) {
  const page = await browser.context.newPage();
  const started = performance.now();
  const demo = await Demo.start(['--state', state, '--reset']);
  await page.goto(demo.url);
  await page.waitForSelector('.layer[data-screen="banner"][data-loaded]');
  visible.push(performance.now() - started);
  library.push(Number((await demo.waitFor(/^presented Consent ([\d.]+) ms after initialize/))[1]));
  await page.close();
  await demo.stop();
}
await browser.close();
rmSync(state, { recursive: true, force: true });
console.log(`demo start to banner visible: median ${median(visible).toFixed(1)} ms, ` +
  `min ${Math.min(...visible).toFixed(1)} ms, max ${Math.max(...visible).toFixed(1)} ms (${runs} runs)`);
console.log(`initialize to banner presented (library and loopback configuration fetch): median ` +
  `${median(library).toFixed(1)} ms, min ${Math.min(...library).toFixed(1)} ms`);
