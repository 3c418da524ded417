// SPDX-License-Identifier: MIT
// Walks through the demo's pages in a headless browser, one walk per run:
//   node browser.js WALK URL DIRECTORY [ARGUMENT...]
// DIRECTORY is for the browser's profile. If SCREENSHOTS names a directory, screenshots are saved
// there. A successful walk prints its observations as JSON and exits with status 0.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { chromium } = require('playwright-core');

const CHROMIUM = '/usr/bin/chromium';
const FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--disable-quic'];

const [walk, url, directory, ...rest] = process.argv.slice(2);

async function picture(page, name) {
  if (process.env.SCREENSHOTS)
    await page.screenshot({ path: path.join(process.env.SCREENSHOTS, name + '.png'), fullPage: true });
}

// Returns the text of the running set, such as "Set A Running Corvel R1 1.0.0".
async function runningSet(page) {
  const text = await page.locator('.set[data-running]').innerText();
  return text.trim().replace(/\s+/g, ' ');
}

// Records every value of an element's attribute on all pages loaded from now on.
async function watch(page, selector, attribute) {
  const seen = [];
  const note = 'note_' + selector.slice(1);
  await page.exposeFunction(note, (value) => seen.push(Number(value)));
  await page.addInitScript(([selector, attribute, note]) => {
    new MutationObserver((changes) => {
      for (const { target } of changes)
        if (target.matches(selector)) window[note](target.getAttribute(attribute));
    }).observe(document, { subtree: true, attributes: true, attributeFilter: [attribute] });
  }, [selector, attribute, note]);
  return seen;
}

// Checks labels, texts, heading, width and ids of the current page.
async function checkPage(page) {
  const faults = await page.evaluate(() => {
    const found = [];
    const visible = (element) => element.checkVisibility();
    for (const each of document.querySelectorAll('input:not([type=hidden]), select, progress'))
      if (visible(each) && !each.labels.length) found.push('no label: ' + each.outerHTML);
    for (const each of document.querySelectorAll('button, a'))
      if (visible(each) && !each.innerText.trim()) found.push('no text: ' + each.outerHTML);
    if (document.querySelectorAll('h1').length !== 1) found.push('not one h1');
    if (document.documentElement.scrollWidth > window.innerWidth)
      found.push('wider than the window: ' + document.documentElement.scrollWidth);
    const ids = [...document.querySelectorAll('[id]')].map((each) => each.id);
    if (new Set(ids).size !== ids.length) found.push('an id occurs twice');
    return found;
  });
  assert.deepEqual(faults, []);
}

// Checks the current page at several widths, from that of a phone, and in both colour schemes.
async function checkLooks(page, name) {
  for (const width of [320, 390, 1280])
    for (const colorScheme of ['light', 'dark']) {
      await page.setViewportSize({ width, height: 844 });
      await page.emulateMedia({ colorScheme });
      await checkPage(page);
      await picture(page, `${name}-${colorScheme}-${width}`);
    }
}

// Checks the current page with axe as it is, for states that end by themselves.
async function checkState(page, state) {
  await page.evaluate(fs.readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8'));
  const { violations } = await page.evaluate(() => axe.run(document));
  const found = violations.flatMap(({ id, nodes }) => nodes.map(({ html, any }) =>
    `${state}: ${id}: ${html}: ${any[0]?.message}`));
  assert.deepEqual(found, []);
  await checkPage(page);
  await picture(page, state);
}

// Checks the current page with axe at four widths, in both colour schemes, and in forced colours.
async function checkAccess(page, state) {
  for (const [width, colorScheme, forcedColors] of [
    [320, 'light', 'none'], [390, 'dark', 'none'], [768, 'light', 'none'], [768, 'dark', 'none'],
    [1280, 'light', 'none'], [1280, 'dark', 'none'], [1280, 'light', 'active']]) {
    await page.setViewportSize({ width, height: 844 });
    await page.emulateMedia({ colorScheme, forcedColors, reducedMotion: 'reduce' });
    await checkState(page, `${state}-${width}-${colorScheme}-${forcedColors}`);
  }
  await page.emulateMedia({ forcedColors: 'none' });
}

// Returns the focusable elements that the bar with the button to save covers when they get the focus.
async function coveredByBar(page) {
  const covered = [];
  await page.evaluate(() => document.activeElement.blur());
  for (let i = 0; i < 60; i++) {
    await page.keyboard.press('Tab');
    const found = await page.evaluate(() => {
      const focused = document.activeElement;
      const bar = document.querySelector('form > .actions');
      if (focused === document.body) return { end: true };
      const inside = bar.contains(focused);
      const [a, b] = [focused.getBoundingClientRect(), bar.getBoundingClientRect()];
      return { covered: !inside && a.bottom > b.top && a.top < b.bottom, name: focused.id || focused.outerHTML };
    });
    if (found.end) break;
    if (found.covered) covered.push(found.name);
  }
  return covered;
}

async function upload(page, image) {
  await page.goto(url + '/cgi-bin/upgrade');
  await page.getByLabel('Image file').setInputFiles(image);
  await page.getByRole('button', { name: 'Upload and check' }).click();
}

// Limits the upload to the speed of a wireless network, so that progress can be observed.
async function slowDown(page, uploadThroughput = 12e6) {
  const network = await page.context().newCDPSession(page);
  await network.send('Network.enable');
  await network.send('Network.emulateNetworkConditions', {
    offline: false, latency: 0, downloadThroughput: -1, uploadThroughput });
  return network;
}

// Fills in and submits the login form of the current page.
async function logIn(page, password) {
  await page.getByLabel('User name').fill('admin');
  await page.getByLabel('Password', { exact: true }).fill(password);
  await page.getByRole('button', { name: 'Log in' }).click();
}

// A restart ends all sessions: the login page appears and leads to the page that says what runs.
async function restart(page) {
  await page.getByRole('button', { name: 'Restart now' }).click();
  await page.locator('form#login').waitFor();
  await logIn(page, process.env.PASSWORD);
  await page.getByRole('heading', { name: /^The router runs / }).waitFor();
}

// Starts the other set, and sees what runs after the restart.
async function startOther(page) {
  await page.getByRole('link', { name: 'Start this version' }).click();
  await page.getByRole('heading', { name: /^Start set/ }).waitFor();
  assert.equal(await page.locator('.message').innerText(), '');
  await checkAccess(page, 'upgrade-start');
  await page.getByRole('button', { name: /^Start set . now$/ }).click();
  await page.getByRole('heading', { name: 'Restarting' }).waitFor();
  await checkState(page, 'restarting');
  await page.locator('form#login').waitFor();
  await logIn(page, process.env.PASSWORD);
  await page.getByRole('heading', { name: /^The router runs / }).waitFor();
  await checkAccess(page, 'upgrade-started');
  await page.getByRole('link', { name: 'Done' }).click();
  await page.getByRole('heading', { name: 'Choose an upgrade image' }).waitFor();
  return runningSet(page);
}

// Counts how often a page is loaded from now on.
function countLoads(page) {
  const count = { loads: 0 };
  page.on('load', () => count.loads++);
  return count;
}

// Returns the texts of a table's column, from the first row.
function column(page, table, name) {
  return page.locator(`#${table} tbody .${name}`).allInnerTexts();
}

// Waits until a table shows the rows of a document in its order. Returns false if it does not.
function showsClients(page, sections) {
  const macs = sections.clients.map((row) => row.mac);
  return page.waitForFunction((macs) =>
    [...document.querySelectorAll('#clients tbody tr')].map((row) => row.dataset.mac).join() ===
      macs.join(), macs, { timeout: 2000 }).then(() => true, () => false);
}

// Clicks a heading, and waits until the rows are those of the device's last response in this order.
async function sortBy(page, name, order) {
  const next = () => page.waitForResponse(
      (response) => response.url().endsWith('Ajax=1&sort=' + order));
  let response = next();
  await page.locator(`#clients th button[data-sort=${name}]`).click();
  while (!await showsClients(page, await (await response).json())) response = next();
}

// Performs an upgrade, from the choice of the image to the restart.
async function upgrade(page, image, name) {
  await page.goto(url + '/cgi-bin/upgrade');
  await checkPage(page);
  await picture(page, name + '-1-choose');
  const network = await slowDown(page);
  await upload(page, image);
  await page.waitForFunction(() => Number(document.querySelector('#sent')?.value) > 30);
  await checkPage(page);
  await picture(page, name + '-2-uploading');
  await page.getByRole('heading', { name: /^Write .* to set/ }).waitFor();
  await network.detach();
  await page.getByText('What the image contains').click();
  await checkPage(page);
  const rows = await page.locator('tbody tr').allInnerTexts();
  await picture(page, name + '-3-check');

  await page.getByRole('button', { name: 'Write image' }).click();
  await page.getByRole('heading', { name: 'Writing' }).waitFor();
  await page.getByRole('heading', { name: /is ready$/ }).waitFor();
  await checkPage(page);
  await picture(page, name + '-4-restart');
  const before = await runningSet(page);

  await restart(page);
  await checkPage(page);
  await picture(page, name + '-6-restarted');
  return { rows, before, after: await runningSet(page) };
}

const walks = {
  // Upgrades to one image and then to another.
  async both(page, there, back) {
    const uploading = await watch(page, '#sent', 'value');
    const writing = await watch(page, '#written', 'value');
    const upgrades = [await upgrade(page, there, 'there'), await upgrade(page, back, 'back')];
    return { upgrades, uploading, writing };
  },

  // Observes that an image is being written, and then that writing was interrupted.
  async write(page, image) {
    const writing = await watch(page, '#written', 'value');
    await upload(page, image);
    await page.getByRole('button', { name: 'Write image' }).click();
    await page.getByRole('heading', { name: 'Writing' }).waitFor();
    await page.waitForFunction(() => Number(document.querySelector('#written')?.value) >= 30);
    await checkState(page, 'writing');
    console.log('writing');
    await page.getByText('Writing was interrupted.').waitFor();
    await picture(page, 'interrupted');
    await checkPage(page);
    await page.getByRole('button', { name: 'Discard' }).click();
    await page.getByRole('heading', { name: 'Choose an upgrade image' }).waitFor();
    return { writing, running: await runningSet(page) };
  },

  // An upload is cancelled, and one whose connection is lost is sent again. Another window follows.
  async followed(page, image) {
    const other = await page.context().newPage();
    other.setDefaultTimeout(60000);
    const shows = (tab, name) => tab.getByRole('heading', { name }).waitFor();
    await other.goto(url + '/cgi-bin/upgrade');
    const network = await slowDown(page, 2e6);
    await upload(page, image);
    await shows(other, 'Receiving an image');
    await checkState(other, 'receiving');
    await page.getByRole('button', { name: 'Cancel' }).click();
    const cancelled = await page.locator('#error-image').innerText();
    await shows(other, 'Choose an upgrade image');
    await network.detach();

    await page.getByRole('button', { name: 'Upload and check' }).click();
    await page.getByText('The router has not answered for').waitFor();
    await picture(page, 'followed-2-silent');
    console.log('silent');
    const waiting = page.getByText('waiting for the rest of the interrupted upload');
    await waiting.or(page.getByRole('heading', { name: /^Write/ })).waitFor();
    await picture(page, 'followed-3-lost');
    for (const tab of [page, other]) await shows(tab, /^Write .* to set/);
    await checkAccess(page, 'upgrade-check');

    await other.getByRole('button', { name: 'Write image' }).click();
    for (const tab of [page, other]) await shows(tab, /is ready$/);
    await checkAccess(page, 'upgrade-ready');
    await other.getByRole('button', { name: 'Stay with set A' }).click();
    await shows(page, 'Choose an upgrade image');
    return { cancelled, running: await startOther(other) };
  },

  async refused(page, image) {
    await upload(page, image);
    const reason = await page.getByRole('alert').innerText();
    await checkPage(page);
    await picture(page, 'refused');
    const focused = await page.evaluate(() => document.activeElement.textContent);
    await page.getByRole('link', { name: 'Choose another image' }).click();
    await page.getByLabel('Image file').waitFor();
    return { reason, focused };
  },

  // A file that is too large is not sent.
  async tooLarge(page, image) {
    let sent = false;
    page.on('request', (request) => { sent ||= request.method() === 'POST'; });
    await upload(page, image);
    const reason = await page.locator('#error-image').innerText();
    assert.equal(sent, false);
    return reason;
  },

  // Checks every page at several widths and in both colour schemes.
  async pages(page) {
    for (const name of ['status', 'clients', 'network', 'device', 'upgrade', 'traps', 'system', 'password']) {
      await page.goto(`${url}/cgi-bin/${name}`);
      await checkLooks(page, name);
    }
    return 'checked';
  },

  // Checks every page in its states with axe.
  async accessible(page, image) {
    const at = (name) => page.goto(`${url}/cgi-bin/${name}`);
    for (const name of ['status', 'clients', 'network', 'device', 'upgrade', 'traps', 'password']) {
      await at(name);
      await checkAccess(page, name);
    }
    await at('network');
    for (const name of ['DHCP server', 'Radio']) await page.getByLabel(name).uncheck();
    await checkAccess(page, 'network-off');
    await at('network');
    for (const name of ['DHCP server', 'Radio']) await page.getByLabel(name).uncheck();
    await page.getByLabel('Router address').fill('300.1.1.1');
    await page.getByRole('button', { name: 'Save' }).click();
    await page.locator('.error:not(:empty)').first().waitFor();
    await checkAccess(page, 'network-errors');
    await at('password');
    for (const name of ['Current password', 'New password', 'Repeat new password'])
      await page.getByLabel(name, { exact: true }).fill('not the password');
    await page.getByRole('button', { name: 'Change password' }).click();
    await page.locator('.error:not(:empty)').first().waitFor();
    await checkAccess(page, 'password-errors');
    await upload(page, image);
    await page.getByRole('alert').waitFor();
    await checkAccess(page, 'upgrade-refused');
    await page.context().clearCookies();
    await at('login');
    await checkAccess(page, 'login');
    await logIn(page, 'wrong');
    await page.getByRole('alert').waitFor();
    await checkAccess(page, 'login-refused');
    return 'checked';
  },

  // Walks through the forms by keyboard: the bar with the button never covers the focused field.
  async keyboard(page) {
    const covered = {};
    for (const [width, height] of [[1280, 720], [390, 844], [320, 568]])
      for (const name of ['network', 'device']) {
        await page.setViewportSize({ width, height });
        await page.goto(`${url}/cgi-bin/${name}`);
        covered[`${name} at ${width} by ${height}`] = await coveredByBar(page);
      }
    return covered;
  },

  // Leaves a form with and without changes: the browser asks only if something would be lost.
  async leaving(page) {
    const questions = [];
    page.on('dialog', (dialog) => {
      questions.push(dialog.type());
      dialog.accept();
    });
    await page.goto(url + '/cgi-bin/device');
    await page.getByRole('link', { name: 'Status' }).click();
    await page.getByRole('heading', { name: 'Status', level: 1 }).waitFor();
    const unchanged = questions.length;
    await page.goto(url + '/cgi-bin/device');
    await page.getByLabel('Contact').pressSequentially('somebody');
    await page.getByRole('link', { name: 'Status' }).click();
    await page.getByRole('heading', { name: 'Status', level: 1 }).waitFor();
    const changed = questions.length - unchanged;
    await page.goto(url + '/cgi-bin/device');
    await page.getByLabel('Contact').pressSequentially(' or other');
    await page.getByRole('button', { name: 'Save' }).click();
    await page.waitForURL(/saved=1/);
    return { unchanged, changed, saved: questions.length - unchanged - changed };
  },

  // The session ends while a form is filled in: after the login the entries are there again.
  async entries(page) {
    await page.goto(url + '/cgi-bin/network');
    await page.getByLabel('Domain').fill('typed.example');
    await page.getByLabel('Hide SSID').check();
    await page.getByLabel('Passphrase').fill('a secret that nobody keeps');
    await page.context().clearCookies();
    await page.getByRole('button', { name: 'Save' }).click();
    await page.locator('form#login').waitFor();
    const kept = await page.evaluate(() => JSON.stringify(sessionStorage));
    await logIn(page, process.env.PASSWORD);
    await page.getByRole('heading', { name: 'Network', level: 1 }).waitFor();
    return {
      kept,
      domain: await page.getByLabel('Domain').inputValue(),
      hidden: await page.getByLabel('Hide SSID').isChecked(),
      message: await page.locator('.message').innerText(),
      left: await page.evaluate(() => sessionStorage.length),
    };
  },

  // Enters another address of the router: the range is moved to its network.
  async range(page) {
    await page.goto(url + '/cgi-bin/network');
    await page.getByLabel('Router address').fill('10.20.30.1');
    await page.keyboard.press('Tab');
    return [await page.getByLabel('First address').inputValue(),
      await page.getByLabel('Last address').inputValue()];
  },

  // Logs in, first with a wrong password, collects the links, and logs out.
  async login(page) {
    await page.goto(url + '/cgi-bin/login');
    await checkLooks(page, 'login');
    await page.goto(url + '/cgi-bin/device');
    await logIn(page, 'wrong');
    const reason = await page.getByRole('alert').innerText();
    await checkPage(page);
    await picture(page, 'login-refused');
    await logIn(page, process.env.PASSWORD);
    await page.getByRole('heading', { name: 'Device', level: 1 }).waitFor();
    const at = [page.url()];
    const cookies = await page.context().cookies();
    const seenByScripts = await page.evaluate(() => document.cookie);
    for (const link of await page.locator('header a').all()) at.push(await link.getAttribute('href'));
    await page.locator('form#logout button').click();
    await page.locator('form#login').waitFor();
    const after = await page.context().cookies();
    await page.goto(url + '/cgi-bin/status');
    await page.locator('form#login').waitFor();
    await page.goBack();
    return { reason, at, cookies, seenByScripts, after, end: page.url() };
  },

  // Logs in to a new device: the site asks for another password before anything else.
  async first(page, factory, own) {
    await page.goto(url + '/cgi-bin/network');
    await logIn(page, factory);
    await page.getByRole('heading', { name: 'Choose a password' }).waitFor();
    await checkAccess(page, 'first-step');
    const choose = async (password) => {
      await page.getByLabel('New password', { exact: true }).fill(password);
      await page.getByLabel('Repeat new password').fill(password);
      await page.getByRole('button', { name: 'Set password' }).click();
    };
    await choose('password2024');
    await page.locator('.error:not(:empty)').first().waitFor();
    const reason = await page.locator('.error:not(:empty)').first().innerText();
    await checkAccess(page, 'first-step-refused');
    await choose(own);
    await page.locator('nav').waitFor();
    return { reason, at: page.url() };
  },

  async password(page, old, next) {
    await page.goto(url + '/cgi-bin/password');
    const change = async (old, next, again) => {
      await page.getByLabel('Current password').fill(old);
      await page.getByLabel('New password', { exact: true }).fill(next);
      await page.getByLabel('Repeat new password').fill(again);
      await page.getByRole('button', { name: 'Change password' }).click();
    };
    await change(old, next, next + 'x');
    await page.locator('.error:not(:empty)').first().waitFor();
    const reason = await page.locator('.error:not(:empty)').first().innerText();
    await checkPage(page);
    await picture(page, 'password-refused');
    await change(old, next, next);
    await page.waitForURL(/saved=1/);
    await checkPage(page);
    await picture(page, 'password-saved');
    await page.locator('form#logout button').click();
    await logIn(page, next);
    await page.locator('#interfaces').waitFor();
    return { reason, at: page.url() };
  },

  // Checks the system page and what it leads to with axe, and restarts the router: the page waits for
  // it, and the login leads back.
  async system(page) {
    await page.goto(url + '/cgi-bin/system');
    await checkAccess(page, 'system');
    await page.getByRole('link', { name: 'Reset router' }).click();
    await page.getByRole('button', { name: 'Reset' }).waitFor();
    await checkAccess(page, 'reset');
    await page.getByRole('link', { name: 'Cancel' }).click();
    await page.getByLabel('Backup to restore').setInputFiles(
      { name: 'settings.conf', mimeType: 'text/plain', buffer: Buffer.from('COUNTRY="XX"\n') });
    await page.getByRole('button', { name: 'Restore settings' }).click();
    await page.getByRole('alert').waitFor();
    await checkAccess(page, 'backup-refused');
    await page.getByRole('link', { name: 'Back' }).click();
    for (let i = 0; i < 2; i++)
      await page.waitForResponse((response) => response.url().endsWith('system?Ajax=1'));
    assert.equal(await page.getByRole('link', { name: 'bootdelay' }).count(), 1);
    await page.getByRole('link', { name: 'Restart router' }).click();
    await page.getByRole('button', { name: 'Restart' }).click();
    await page.getByRole('heading', { name: 'Restarting' }).waitFor();
    await page.locator('form#login').waitFor();
    await logIn(page, process.env.PASSWORD);
    await page.getByRole('heading', { name: 'System', level: 1 }).waitFor();
    return 'back';
  },

  // Observes the status page while the interface wlan0 is changed and then the session ends.
  async status(page) {
    const count = countLoads(page);
    await page.goto(url + '/cgi-bin/status');
    const row = page.locator('#interfaces tr[data-name=wlan0]');
    await row.waitFor();
    await picture(page, 'status');
    console.log('shown');
    await row.locator('.ipv4', { hasText: '198.51.100.99' }).waitFor();
    await row.locator('.mac', { hasText: /02:0a:ff:00:9b:c2/i }).waitFor();
    const rows = await page.locator('#interfaces tr[data-name]').evaluateAll((rows) =>
      rows.map((row) => ({ name: row.dataset.name, ...Object.fromEntries(
        ['ipv4', 'netmask', 'mac', 'ipv6'].map((name) =>
          [name, row.querySelector('.' + name).textContent.trim()])) })));
    const { loads } = count;
    await checkPage(page);
    console.log('changed');
    await page.locator('form#login').waitFor();
    return { rows, loads, at: page.url() };
  },

  // Sorts the table by each column: a click sorts ascending, another one descending.
  async sort(page) {
    await page.goto(url + '/cgi-bin/clients');
    const orders = {};
    for (const name of ['name', 'state', 'mac', 'ends', 'ip']) {
      orders[name] = [];
      for (const wanted of ['ascending', 'descending']) {
        await sortBy(page, name, (wanted === 'ascending' ? '' : '-') + name);
        orders[name].push(await column(page, 'clients', name));
        assert.equal(await page.locator(`#clients th[data-column=${name}]`)
          .getAttribute('aria-sort'), wanted);
        assert.equal(await page.locator(`th[aria-sort=${wanted}]`).count(), 1);
      }
    }
    await checkPage(page);
    return orders;
  },

  // Two neighbours appear while the table is sorted by address in descending order. One of them gets
  // a name. Then the device has no clients any more.
  async clients(page) {
    const count = countLoads(page);
    await page.goto(url + '/cgi-bin/clients');
    await sortBy(page, 'ip', '-ip');
    console.log('sorted');
    for (const mac of ['02:00:00:00:09:09', '02:00:00:00:90:90'])
      await page.locator(`#clients tr[data-mac="${mac}"]`).waitFor();
    const ips = await column(page, 'clients', 'ip');
    const { loads } = count;
    await page.locator('#clients tr[data-mac="02:00:00:00:90:90"] a').click();
    await page.getByLabel('Name', { exact: true }).fill('Kitchen radio');
    await checkAccess(page, 'client-details');
    await page.getByRole('button', { name: 'Save' }).click();
    await page.waitForURL(/saved=1/);
    const named = await page.locator('#clients tr[data-mac="02:00:00:00:90:90"] .name').innerText();
    await page.route(/Ajax=1/, (route) => route.fulfill({ json: { clients: [] } }));
    await page.locator('#clients tbody:not(:has(tr))').waitFor();
    await checkPage(page);
    const empty = await page.locator('#clients tbody').evaluate((body) =>
      [getComputedStyle(body, '::before').content, body.getBoundingClientRect().height > 10]);
    return { ips, loads, named, empty };
  },

  // Shows a table with host names that contain scripts, as loaded and after a refresh. A long name
  // leaves every column in view.
  async hostile(page) {
    await page.goto(url + '/cgi-bin/clients');
    const first = await column(page, 'clients', 'name');
    await page.waitForResponse((response) => response.url().includes('Ajax=1'));
    await page.waitForResponse((response) => response.url().includes('Ajax=1'));
    const refreshed = await column(page, 'clients', 'name');
    const hacked = await page.evaluate(() => 'hacked' in window);
    const inside = await page.locator('#clients tbody').evaluate((body) =>
      [...new Set([...body.querySelectorAll('*')].map((each) => each.localName))]);
    const hidden = [];
    for (const width of [1280, 1100, 768, 390, 320]) {
      await page.setViewportSize({ width, height: 900 });
      if (await page.locator('.scroll').evaluate((each) => each.scrollWidth > each.clientWidth))
        hidden.push(width);
    }
    return { first, refreshed, hacked, inside, hidden };
  },

  // Sends an image after the session has ended: the response precedes the end of the upload.
  async ended(page, image) {
    await page.goto(url + '/cgi-bin/upgrade');
    await page.getByLabel('Image file').setInputFiles(image);
    await page.context().clearCookies();
    await page.getByRole('button', { name: 'Upload and check' }).click();
    await page.locator('form#login').waitFor();
    return page.url();
  },

  endedWithoutScripts: (page, image) => walks.ended(page, image),

  // Uses only the browser's own forms, redirects and refreshes.
  async withoutScripts(page, image) {
    await upload(page, image);
    await page.getByRole('button', { name: 'Write image' }).click();
    await page.getByRole('heading', { name: /is ready$/ }).waitFor();
    await restart(page);
    return runningSet(page);
  },
};

async function main() {
  const profile = fs.mkdtempSync(path.join(directory, 'profile-'));
  const browser = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM, headless: true,
    args: walk.toLowerCase().endsWith('withoutscripts') ? [...FLAGS, '--blink-settings=scriptEnabled=false'] : FLAGS,
    colorScheme: process.env.COLOR_SCHEME ?? 'light',
    viewport: { width: Number(process.env.WIDTH ?? 1100), height: 900 },
  });
  try {
    if (process.env.SESSION)
      await browser.addCookies([{ name: 'session', value: process.env.SESSION, url,
        httpOnly: true, sameSite: 'Strict' }]);
    const page = browser.pages()[0];
    const complaints = [];
    page.setDefaultTimeout(60000);
    page.on('pageerror', (error) => complaints.push(String(error)));
    page.on('console', (message) => {
      // A refusal has an error status, and a router that is restarting does not respond.
      if (message.type() === 'error' && !message.text().startsWith('Failed to load resource'))
        complaints.push(message.text());
    });
    const result = await walks[walk](page, ...rest);
    assert.deepEqual(complaints, []);
    console.log(JSON.stringify(result));
  } finally {
    await browser.close();
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});
