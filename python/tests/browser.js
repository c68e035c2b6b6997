// Opens pages in a browser and prints what happened there: node browser.js PACKAGES PAGE...
"use strict";
const [packages, ...pages] = process.argv.slice(2);
const { chromium } = require(`${packages}/node_modules/playwright-core`);
const axe = `${packages}/node_modules/axe-core/axe.min.js`;
const flags = ["--no-sandbox", "--use-angle=swiftshader", "--enable-unsafe-swiftshader", "--ignore-gpu-blocklist"];

// Shots until two are alike, so that what was asked for is drawn.
async function shot(page, id) {
  let last = "";
  for (let i = 0; i < 40; i++) {
    const next = (await page.locator(id).screenshot()).toString("base64");
    if (next === last) return next;
    last = next;
    await page.waitForTimeout(150);
  }
  return last;
}

async function plain(browser, address) {
  const context = await browser.newContext({ javaScriptEnabled: false, viewport: { width: 1280, height: 900 } });
  const page = await context.newPage();
  await page.goto(address);
  const sizes = await page.locator("img").evaluateAll((all) => all.map((i) => [i.naturalWidth, i.naturalHeight]));
  const wide = await page.locator("html").evaluate((html) => html.scrollWidth);
  await context.close();
  return { pictures: sizes.filter(([width, height]) => width > 60 && height > 40).length, width: wide };
}

async function judged(page) {
  await page.addScriptTag({ path: axe });
  const found = await page.evaluate(() => axe.run());
  return found.violations.filter((v) => ["serious", "critical"].includes(v.impact)).map((v) => `${v.id}: ${v.nodes[0].html}`);
}

async function viewed(page) {
  await page.click("#show");
  await page.waitForSelector("#viewer[data-ready]", { timeout: 60000 });
  const shots = [await shot(page, "#first")];
  for (const [control, value] of [["slice", "0"], ["overlay", "map"], ["opacity", "0.1"], ["overlay", ""], ["high", "0.2"]]) {
    const at = page.locator(`#${control}`);
    if ((await at.evaluate((e) => e.tagName)) === "INPUT") await at.fill(value);
    else await at.selectOption(value === "map" ? { index: 1 } : value);
    shots.push(await shot(page, "#first"));
  }
  await page.selectOption("#beside", "1");
  const beside = await shot(page, "#second");
  await page.locator("#slice").focus();
  await page.keyboard.press("ArrowRight");
  return { shots, beside: [beside, await shot(page, "#second")] };
}

(async () => {
  const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: flags });
  const told = [];
  for (const address of pages.map((name) => `file://${encodeURI(name)}`)) {
    const page = await browser.newPage({ viewport: { width: 1280, height: 900 } });
    const made = { requests: [], console: [], ...(await plain(browser, address)) };
    page.on("request", (request) => made.requests.push(request.url()));
    page.on("console", (message) => message.type() === "error" && made.console.push(message.text()));
    page.on("pageerror", (error) => made.console.push(String(error)));
    await page.goto(address);
    if (await page.locator("#show").count()) Object.assign(made, await viewed(page));
    made.requests = made.requests.filter((url) => url !== address && !/^(data|blob):/.test(url)).map((url) => url.slice(0, 200));
    made.faults = await judged(page);
    await page.emulateMedia({ colorScheme: "dark" });
    made.faults.push(...(await judged(page)));
    told.push(made);
    await page.close();
  }
  await browser.close();
  console.log(JSON.stringify(told));
})();
