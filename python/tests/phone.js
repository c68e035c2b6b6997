// Opens pages as wide as a phone and prints what does not fit or is asked for: node phone.js PACKAGES PAGE...
"use strict";
const [packages, ...pages] = process.argv.slice(2);
const { chromium } = require(`${packages}/node_modules/playwright-core`);

(async () => {
  const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
  const page = await browser.newPage({ viewport: { width: 360, height: 740 } });
  const told = {};
  let requests = [], errors = [];
  page.on("request", (request) => requests.push(request.url()));
  page.on("pageerror", (error) => errors.push(String(error)));
  for (const name of pages) {
    requests = [];
    errors = [];
    await page.goto(`file://${encodeURI(name)}`);
    const width = await page.evaluate(() => document.documentElement.scrollWidth);
    told[name] = { width, errors, asked: requests.filter((url) => !/^(file|data):/.test(url)) };
  }
  await page.goto(`file://${encodeURI(pages[0])}`);
  await page.click(".mobile-header label.nav-overlay-icon");
  await page.waitForTimeout(500);
  told.menu = await page.locator("#__navigation").evaluate((e) => e.checked);
  await browser.close();
  console.log(JSON.stringify(told));
})();
