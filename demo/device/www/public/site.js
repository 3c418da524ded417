// SPDX-License-Identifier: MIT
// Comforts only: every page shows and saves without this file.
'use strict';

// A switch greys out the settings that have no effect while it is off. They are sent all the same.
for (const box of document.querySelectorAll('[data-governs]')) {
  const governed = document.getElementById(box.dataset.governs);
  const update = () => governed.classList.toggle('off', !box.checked);
  box.addEventListener('change', update);
  update();
}

// In a narrow window the navigation is wider than what is seen of it.
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

// Who is not logged in any more sees the login, and comes back behind it.
function toLogin() {
  location.assign('/cgi-bin/login?next=' + encodeURIComponent(location.pathname + location.search));
}

async function fetchJson(url) {
  const answer = await fetch(url).catch(() => null);
  if (answer?.status === 401) toLogin();
  return answer?.ok ? answer.json() : null;
}

// Puts records into a table, column by column. Rows that are there already are kept.
function fill(table, records) {
  const [body] = table.tBodies;
  const columns = [...table.querySelectorAll('[data-column]')].map((each) => each.dataset.column);
  while (body.rows.length > records.length) body.deleteRow(-1);
  records.forEach((record, i) => {
    const row = body.rows[i] ?? body.insertRow();
    row.dataset[table.dataset.key] = record[table.dataset.key];
    columns.forEach((column, j) => {
      const cell = row.cells[j] ?? row.insertCell();
      cell.className = column;
      if (cell.textContent !== record[column]) cell.textContent = record[column];
    });
  });
}

// Shows anew what changes by itself: a section of records in the table of its name, another one's
// values wherever their names stand. What could not be fetched is shown as of old.
const refreshed = document.querySelector('[data-refresh]');
let order = new URLSearchParams(location.search).get('sort');
let asked = 0;

async function refresh() {
  const number = ++asked;
  const sections = await fetchJson(
    refreshed.dataset.refresh + (order ? '&sort=' + encodeURIComponent(order) : ''));
  if (number !== asked) return; // it has been asked again since, perhaps in another order
  refreshed.classList.toggle('stale', !sections);
  for (const [name, records] of Object.entries(sections ?? {})) {
    const table = document.getElementById(name);
    if (table) fill(table, records);
    else
      for (const [id, value] of Object.entries(records[0]))
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
    history.replaceState(null, '', '?sort=' + order);
    refresh();
  });

// Says when settings were applied last, and when somebody else has changed them meanwhile.
const live = document.querySelector('form[data-live]');
if (live) {
  let known;
  const look = async () => {
    if (document.hidden) return;
    const sections = await fetchJson(live.dataset.live);
    if (!sections) return;
    const { settings: [settings], applied: [applied] } = sections;
    document.getElementById('applied').textContent = applied.TIME;
    const now = JSON.stringify(settings);
    if (known && now !== known)
      document.querySelector('.message').textContent =
        'The settings have been changed elsewhere. Load this page again to see them.';
    known = now;
  };
  look();
  setInterval(look, 5000);
}

// The steps of an upgrade. Each begins with a form that works without this file, too.

// Puts an answer's content in the place of the present one: a refusal comes with a status of its own.
function show(text, url) {
  const main = new DOMParser().parseFromString(text, 'text/html').querySelector('main');
  if (!main) {
    location.assign(url); // no page of this site: the web server's own words
    return;
  }
  document.querySelector('main').replaceWith(main);
  history.replaceState(null, '', url);
  const heading = main.querySelector('#step') ?? main.querySelector('h1');
  heading.tabIndex = -1;
  heading.focus();
  followUpgrade();
}

function showProgress(bar, label, text, percent) {
  if (percent === undefined) bar.removeAttribute('value');
  else bar.value = percent;
  label.textContent = text;
}

function sendImage(form) {
  const bar = document.getElementById('sent');
  const label = document.getElementById('sending');
  const error = document.getElementById('error-image');
  const controls = form.querySelectorAll('input, button');
  const request = new XMLHttpRequest();
  const uploading = (percent) => showProgress(bar, label,
    `Uploading: ${percent} %. Before a large image the router pauses for ten seconds.`, percent);
  request.upload.addEventListener('progress', (event) =>
    uploading(Math.floor(100 * event.loaded / event.total)));
  request.upload.addEventListener('load', () => showProgress(bar, label, 'Checking.'));
  request.addEventListener('load', () => {
    if (new URL(request.responseURL).pathname === '/cgi-bin/login') toLogin();
    else show(request.responseText, '/cgi-bin/upgrade');
  });
  request.addEventListener('error', () => {
    error.textContent = 'The connection was lost. Nothing has been written.';
    bar.parentElement.hidden = true;
    for (const each of controls) each.disabled = false;
  });
  request.open('POST', form.action);
  request.send(new FormData(form));
  for (const each of controls) each.disabled = true;
  error.textContent = '';
  bar.parentElement.hidden = false;
  uploading(0);
}

// Asks for the state again and again until a visitor of it has seen enough.
function poll(url, isEnough) {
  const timer = setInterval(async () => {
    const sections = await fetchJson(url);
    if (!sections) return;
    const { upgrade: [state] } = sections;
    if (!isEnough(state)) return;
    clearInterval(timer);
    location.replace('/cgi-bin/upgrade');
  }, 300);
}

function followUpgrade() {
  const form = document.querySelector('form[data-upload]');
  form?.addEventListener('submit', (event) => {
    event.preventDefault();
    const file = form.querySelector('input[type=file]').files[0];
    if (file.size <= Number(form.dataset.upload)) sendImage(form);
    else document.getElementById('error-image').textContent = 'This file is larger than 16 MiB.';
  });

  const writing = document.querySelector('[data-writing]');
  if (writing)
    poll(writing.dataset.writing, (state) => {
      const percent = Math.floor(100 * state.WRITTEN / (Number(state.TOTAL) || 1));
      document.getElementById('written').value = percent;
      document.getElementById('percent').textContent = percent;
      document.getElementById('section').textContent = state.SECTION;
      return state.STATE !== 'writing';
    });

  const restart = document.querySelector('[data-restart]');
  if (restart)
    poll(restart.dataset.restart, (state) => state.BOOT_ID !== restart.dataset.bootId);
}
followUpgrade();
