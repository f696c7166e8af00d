// Drives the demo enrolment page in headless Chromium.
//   node enrol.mjs enrol URL SCREENSHOT   both enrolments; prints the results
//   node enrol.mjs connect URL            only connect(); prints its message
// NODE_PATH must reach playwright-core; CHROMIUM names the browser.
import { createRequire } from "module";

const require = createRequire(import.meta.url);
const { chromium } = require("playwright-core");
const [mode, url, screenshot] = process.argv.slice(2);

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM || "/usr/bin/chromium",
  args: ["--no-sandbox", "--disable-gpu"],
});
let code = 1;
try {
  const page = await browser.newPage();
  page.on("console", (m) => console.error("page: " + m.text()));
  await page.goto(url);
  const done = (id) => page.waitForFunction(
    (i) => !["-", "working"].includes(document.getElementById(i).textContent), id,
    { timeout: 60000 });
  await page.click("#enrol-client");
  await done("client-result");
  if (mode === "connect") {
    console.log(await page.textContent("#log"));
    code = 0;
  } else {
    await page.click("#enrol-kmc");
    await done("kmc-result");
    const client = await page.textContent("#client-result");
    const kmc = await page.textContent("#kmc-result");
    console.log(`client: ${client}\nkmc: ${kmc}`);
    console.error(await page.textContent("#log"));
    if (screenshot) await page.screenshot({ path: screenshot, fullPage: true });
    code = client === "client enrolled" && kmc === "KMC enrolled" ? 0 : 1;
  }
} finally {
  await browser.close();
}
process.exit(code);
