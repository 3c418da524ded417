// SPDX-License-Identifier: MIT
// Optional improvements: every page works without this file.
'use strict';

// A switch greys out the settings that have no effect while it is off. They are submitted anyway.
for (const box of document.querySelectorAll('[data-governs]')) {
  const governed = document.getElementById(box.dataset.governs);
  const required = governed.querySelectorAll('[required]');
  const update = () => {
    governed.classList.toggle('off', !box.checked);
    for (const each of required) each.required = box.checked;
  };
  box.addEventListener('change', update);
  update();
}

// In a narrow window part of the navigation is hidden: scrolls to the current page's entry.
document.querySelector('nav [aria-current]')?.scrollIntoView({ inline: 'center', block: 'nearest' });

for (const input of document.querySelectorAll('[data-reveal]')) {
  const button = document.createElement('button');
  button.type = 'button';
  button.className = 'reveal';
  button.textContent = 'Show';
  button.setAttribute('aria-pressed', 'false');
  button.setAttribute('aria-controls', input.id);
  button.addEventListener('click', () => {
    const shown = input.type === 'password';
    input.type = shown ? 'text' : 'password';
    button.setAttribute('aria-pressed', String(shown));
    button.textContent = shown ? 'Hide' : 'Show';
  });
  const joined = document.createElement('div');
  joined.className = 'joined';
  input.replaceWith(joined);
  joined.append(input, button);
}

for (const error of document.querySelectorAll('.error:not(:empty)')) {
  const input = error.parentElement.querySelector('input, select');
  input.setAttribute('aria-invalid', 'true');
  input.addEventListener('input', () => input.removeAttribute('aria-invalid'), { once: true });
}
document.querySelector('[aria-invalid]')?.focus();

const netmask = document.getElementById('LAN_NETMASK');
const prefixLength = document.getElementById('prefix-length');
netmask?.addEventListener('input', () => {
  const bits = netmask.value.split('.')
    .map((octet) => Number(octet).toString(2).padStart(8, '0')).join('');
  prefixLength.value = /^1+0+$/.test(bits) && bits.length === 32 ? '/' + bits.indexOf('0') : '/–';
});

// --- Forms of settings ---------------------------------------------------------------------------

// What the user typed is kept until it is saved: a warning precedes leaving the page, and entries
// that a session's end interrupted are filled in again after the next login. Passwords are not kept.
const settings = document.querySelector('form[method=post]:not(#login, #logout, [data-upload])');
const memory = 'entries of ' + location.pathname;
const entries = (form) => [...form.elements].filter(
  (each) => each.name && !each.matches(
    'button, [type=hidden], [type=password], [type=file], [data-reveal]'));
const valueOf = (each) => (each.type === 'checkbox' ? each.checked : each.value);
let isSubmitted = false;

function isChanged() {
  return !!settings && entries(settings).some((each) => (each.type === 'checkbox'
    ? each.checked !== each.defaultChecked
    : each.options ? !each.selectedOptions[0]?.defaultSelected : each.value !== each.defaultValue));
}

function keepEntries() {
  if (isChanged())
    sessionStorage.setItem(memory, JSON.stringify(
      entries(settings).map((each) => [each.name, valueOf(each)])));
}

function restoreEntries() {
  const kept = JSON.parse(sessionStorage.getItem(memory) ?? 'null');
  sessionStorage.removeItem(memory);
  // A page that shows a saved form or its errors has the user's entries already.
  if (!kept || document.querySelector('.message')?.textContent.trim()) return;
  for (const [name, value] of kept) {
    const field = entries(settings).find((each) => each.name === name);
    if (field?.type === 'checkbox') field.checked = value;
    else if (field) field.value = value;
    field?.dispatchEvent(new Event('change'));
  }
  if (isChanged())
    document.querySelector('.message').textContent =
      'Your session had ended. Your entries are filled in again, but not saved yet.';
}

if (settings) {
  restoreEntries();
  settings.addEventListener('submit', () => {
    isSubmitted = true;
    keepEntries();
  });
  addEventListener('beforeunload', (event) => {
    if (!isSubmitted && isChanged()) event.preventDefault();
  });
}

// The range of assigned addresses follows a changed address of the router.
const routerAddress = document.getElementById('LAN_ADDRESS');
routerAddress?.addEventListener('change', () => {
  const number = (text) => (/^\d+(\.\d+){3}$/.test(text)
    ? text.split('.').reduce((sum, octet) => sum * 256 + Number(octet), 0) : NaN);
  const mask = number(netmask.defaultValue);
  const text = (value) => [24, 16, 8, 0].map((shift) => (value >>> shift) & 255).join('.');
  const from = (number(routerAddress.defaultValue) & mask) >>> 0;
  const to = number(routerAddress.value);
  if (Number.isNaN(to)) return;
  for (const name of ['DHCP_FIRST', 'DHCP_LAST']) {
    const field = document.getElementById(name);
    const address = number(field.defaultValue);
    if ((address & mask) >>> 0 === from)
      field.value = text(((to & mask) | (address & ~mask)) >>> 0);
  }
});

// Redirects to the login page, which leads back to this page.
function toLogin() {
  keepEntries();
  isSubmitted = true;
  location.assign('/cgi-bin/login?next=' + encodeURIComponent(location.pathname + location.search));
}

async function fetchJson(url) {
  const response = await fetch(url, { signal: AbortSignal.timeout(10000) }).catch(() => null);
  if (response?.status === 401) toLogin();
  return response?.ok ? response.json() : null;
}

// Shows a text in a cell, as a link if it leads anywhere.
function showIn(cell, text, address) {
  let link = cell.querySelector('a');
  if (!address !== !link) {
    link = address && document.createElement('a');
    cell.replaceChildren(link || '');
  }
  if (link && link.getAttribute('href') !== address) link.href = address;
  if (cell.textContent !== text) (link || cell).textContent = text;
}

// Shows records in the rows of a table, column by column. Existing rows are reused.
function fill(table, records) {
  const [body] = table.tBodies;
  const columns = [...table.querySelectorAll('[data-column]')].map((each) => each.dataset);
  while (body.rows.length > records.length) body.deleteRow(-1);
  records.forEach((record, i) => {
    const row = body.rows[i] ?? body.insertRow();
    row.dataset[table.dataset.key] = record[table.dataset.key];
    columns.forEach(({ column, link }, j) => {
      const cell = row.cells[j] ?? row.insertCell();
      const key = record[table.dataset.key];
      cell.className = column;
      showIn(cell, record[column], link && key ? link + key : '');
    });
  });
}

// Refreshes a page: a list of records is shown in the table with its name, if the table has a key,
// each value of an object in the element with the value's name. If the data cannot be fetched, the
// page is marked as outdated.
const refreshed = document.querySelector('[data-refresh]');
let order = new URLSearchParams(location.search).get('sort');
let asked = 0;

async function refresh() {
  const number = ++asked;
  const sections = await fetchJson(
    refreshed.dataset.refresh + (order ? '&sort=' + encodeURIComponent(order) : ''));
  if (number !== asked) return; // there is a later request, perhaps with another order
  refreshed.classList.toggle('stale', !sections);
  for (const [name, records] of Object.entries(sections ?? {})) {
    const table = document.getElementById(name);
    if (table?.dataset.key) fill(table, records);
    else if (!Array.isArray(records))
      for (const [id, value] of Object.entries(records))
        document.getElementById(id).textContent = value;
  }
}

if (refreshed) setInterval(() => document.hidden || refresh(), 3000);

const sorters = [...document.querySelectorAll('[data-sort]')];
for (const button of sorters)
  button.addEventListener('click', (event) => {
    event.preventDefault();
    order = button.value;
    for (const each of sorters) {
      const isSorted = each.dataset.sort === order.replace('-', '');
      const direction = order.startsWith('-') ? 'descending' : 'ascending';
      each.closest('th').setAttribute('aria-sort', isSorted ? direction : 'none');
      each.value = (order === each.dataset.sort ? '-' : '') + each.dataset.sort;
    }
    const query = new URLSearchParams(location.search);
    query.set('sort', order);
    history.replaceState(null, '', '?' + query);
    refresh();
  });

// Shows when settings were last applied, and reports changes made elsewhere.
const live = document.querySelector('form[data-live]');
if (live) {
  let known;
  const look = async () => {
    if (document.hidden) return;
    const sections = await fetchJson(live.dataset.live);
    if (!sections) return;
    const { settings, applied } = sections;
    document.getElementById('applied').textContent = applied.TIME;
    const now = JSON.stringify(settings);
    if (known && now !== known)
      document.querySelector('.message').textContent =
        'The settings have been changed elsewhere. Reload this page to see them.';
    known = now;
  };
  look();
  setInterval(look, 5000);
}

// A restart ends the session: the login page then leads to this page.
const waiting = document.querySelector('[data-waiting]')?.dataset.waiting;
if (waiting) {
  const timer = setInterval(async () => {
    const response = await fetch(waiting + '?Ajax=1').catch(() => null);
    if (response?.status !== 401) return;
    clearInterval(timer); // a second navigation would cancel the first
    location.replace(waiting);
  }, 1000);
}

// --- The firmware page ---------------------------------------------------------------------------

// The steps of an upgrade. Each starts with a form that also works without this file.

const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));
const upgradePage = '/cgi-bin/upgrade';
let isSending = false;

// Replaces the page's content with that of a response. The response may have an error status.
function show(text, url) {
  const main = new DOMParser().parseFromString(text, 'text/html').querySelector('main');
  if (!main) {
    location.assign(url); // not a page of this site, but an error page of the web server
    return;
  }
  document.querySelector('main').replaceWith(main);
  history.replaceState(null, '', url);
  const heading = main.querySelector('#step') ?? main.querySelector('h1');
  heading.tabIndex = -1;
  heading.focus();
  prepareUpload();
}

function showProgress(bar, label, text, percent) {
  if (percent === undefined) bar.removeAttribute('value');
  else bar.value = percent;
  label.textContent = text;
}

// The state of the upgrade; undefined if the router does not answer.
async function fetchUpgrade() {
  return (await fetchJson(upgradePage + '?Ajax=1'))?.upgrade;
}

// Loads a page. What has begun to leave this page is not interrupted by another look at the state.
function leaveFor(url) {
  isSubmitted = true;
  location.replace(url);
}

// Whether the page shows another step than this one, or another image. One that says why an image
// was refused stays.
function isOutdated(state) {
  const { upgrade, image } = document.querySelector('[data-upgrade]').dataset;
  return upgrade !== 'refused' && (state.STATE !== upgrade || state.IMAGE !== image);
}

// Sends an image. If the connection is lost, it is sent again as soon as the router no longer waits
// for the rest of the interrupted upload.
function sendImage(form) {
  const bar = document.getElementById('sent');
  const label = document.getElementById('sending');
  const stop = document.getElementById('stop');
  const controls = form.querySelectorAll('input, [type=submit]');
  const content = new FormData(form);
  const say = (text, percent) => showProgress(bar, label, text, percent);
  // The id tells an interrupted upload of this page from that of another one.
  const id = String(crypto.getRandomValues(new Uint32Array(2)));
  let attempts = 0;
  let percent;
  let moved;
  let request;

  function setSending(sending, reason = '') {
    isSending = sending;
    bar.parentElement.hidden = stop.hidden = !sending;
    for (const each of controls) each.disabled = sending;
    document.getElementById('error-image').textContent = reason;
  }

  function send() {
    const own = request = new XMLHttpRequest();
    const ifCurrent = (act) => (event) => { if (request === own) act(event); };
    attempts++;
    moved = Date.now();
    percent = 0;
    say('Sending the image: 0 %', 0);
    own.upload.addEventListener('progress', ifCurrent((event) => {
      moved = Date.now();
      percent = Math.floor(100 * event.loaded / event.total);
      say(`Sending the image: ${percent} %`, percent);
    }));
    own.upload.addEventListener('load', ifCurrent(() => {
      moved = Date.now();
      percent = undefined;
      say('Checking the image');
    }));
    own.addEventListener('load', ifCurrent(async () => {
      // A browser that repeats a lost request itself meets the first one.
      if (own.status === 408 ||
          (own.status === 409 && (attempts > 1 || (await fetchUpgrade())?.UPLOAD === id))) {
        sendAgain();
        return;
      }
      setSending(false);
      if (new URL(own.responseURL).pathname === '/cgi-bin/login') toLogin();
      else show(own.responseText, upgradePage);
    }));
    own.addEventListener('error', ifCurrent(sendAgain));
    own.open('POST', `${form.action}&id=${id}`);
    own.send(content);
  }

  async function sendAgain() {
    request = null;
    if (attempts === 10) {
      setSending(false, 'The image could not be sent, and nothing has been written. Check the connection.');
      return;
    }
    say('The connection was lost. Waiting for the router.');
    while (isSending && !request) {
      await pause(1000);
      const state = isSending && await fetchUpgrade();
      if (!isSending) return;
      if (!state) {
        say('The connection was lost. Waiting for the router.');
      } else if (state.STATE === 'busy' || (state.STATE === 'receiving' && state.UPLOAD === id)) {
        say('The router is waiting for the rest of the interrupted upload. The image is sent again in a few seconds.');
      } else if (isOutdated(state)) {
        leaveFor(upgradePage); // it was received, or another upgrade has begun
        return;
      } else {
        send();
      }
    }
  }

  // A connection that is lost without a word is noticed by its silence.
  const timer = setInterval(() => {
    const seconds = Math.floor((Date.now() - moved) / 1000);
    if (!isSending) {
      clearInterval(timer);
    } else if (request && seconds >= (percent === undefined ? 60 : 15)) {
      const lost = request;
      sendAgain();
      lost.abort();
    } else if (request && percent !== undefined && seconds >= 3) {
      say(`Sending the image: ${percent} %. The router has not answered for ${seconds} seconds.`, percent);
    }
  }, 1000);

  stop.onclick = () => {
    setSending(false, 'Cancelled. Nothing has been written.');
    request?.abort();
  };
  setSending(true);
  send();
}

function prepareUpload() {
  const form = document.querySelector('form[data-upload]');
  form?.addEventListener('submit', (event) => {
    event.preventDefault();
    const [file] = form.querySelector('input[type=file]').files;
    if (file.size <= Number(form.dataset.upload)) sendImage(form);
    else
      document.getElementById('error-image').textContent =
        'This file is larger than 16 MiB, so it is not an image for this router. It has not been sent.';
  });
}

// Follows the upgrade, whichever window has started it. Returns the milliseconds until the next look.
async function followUpgrade() {
  const restart = document.querySelector('[data-boot-id]');
  const { upgrade: shown } = document.querySelector('[data-upgrade]').dataset;
  const isIdle = !restart && !['writing', 'receiving', 'busy'].includes(shown);
  if (isSending || (isIdle && document.hidden)) return 1000;
  const state = await fetchUpgrade();
  const phase = document.getElementById('phase');
  if (isSending || isSubmitted) return 1000;
  if (restart) {
    if (state && state.BOOT_ID !== restart.dataset.bootId) leaveFor(location.href);
  } else if (!state) {
    if (phase) phase.textContent = 'The router does not answer. This page continues when it does.';
  } else if (isOutdated(state)) {
    leaveFor(upgradePage);
  } else if (phase) {
    if (phase.textContent !== state.PHASE) phase.textContent = state.PHASE;
    showProgress(document.getElementById('written'), document.getElementById('percent'),
      state.PERCENT ? state.PERCENT + ' %' : state.WAIT, state.PERCENT || undefined);
  }
  return isIdle ? 2000 : 400;
}

if (document.querySelector('[data-upgrade]')) {
  // After the restart, and possibly a login, the page says what runs.
  const restart = document.querySelector('[data-boot-id]');
  if (restart) history.replaceState(null, '', `${upgradePage}?started=${restart.dataset.set}`);
  prepareUpload();
  addEventListener('submit', (event) => { isSubmitted ||= !event.defaultPrevented; });
  addEventListener('beforeunload', (event) => {
    if (isSending && !isSubmitted) event.preventDefault();
  });
  (async () => {
    while (!isSubmitted && document.querySelector('[data-upgrade]')) await pause(await followUpgrade());
  })();
}
