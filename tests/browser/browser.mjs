// A headless Debian chromium on a fresh profile, driven by playwright-core.
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

export async function launch() {
  const profile = mkdtempSync(join(tmpdir(), 'quillet-browser-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: process.env.QUILLET_CHROMIUM ?? '/usr/bin/chromium',
    headless: true,
    viewport: { width: 390, height: 844 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  return {
    context,
    async close() {
      await context.close();
      rmSync(profile, { recursive: true, force: true });
    },
  };
}
