// SPDX-License-Identifier: MIT
// usage: browser_upload.js URL FILE...
// Has a browser send the files and a field of the page upload.html, and prints the response.
'use strict';

const { chromium } = require('playwright-core');

async function main() {
  const [url, ...paths] = process.argv.slice(2);
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium', args: ['--no-sandbox', '--disable-quic'] });
  try {
    const page = await browser.newPage();
    await page.goto(new URL('/upload.html', url).href);
    await page.locator('form').evaluate((form, action) => { form.action = action; }, url);
    await page.locator('input[type=file]').setInputFiles(paths);
    const response = page.waitForResponse(url);
    await page.locator('button').click();
    console.log(await (await response).text());
  } finally {
    await browser.close();
  }
}

main();
