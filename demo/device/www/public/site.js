// Comforts only: every page shows and saves without this file.
'use strict';

// A switch greys out the settings that have no effect while it is off. They are sent all the same.
for (const box of document.querySelectorAll('[data-governs]')) {
  const governed = document.getElementById(box.dataset.governs);
  const update = () => governed.classList.toggle('off', !box.checked);
  box.addEventListener('change', update);
  update();
}

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

// Says when settings were applied last, and when somebody else has changed them meanwhile.
const live = document.querySelector('form[data-live]');
if (live) {
  let known;
  const look = async () => {
    if (document.hidden) return;
    const answer = await fetch(live.dataset.live).catch(() => null);
    if (!answer?.ok) return;
    const { settings: [settings], applied: [applied] } = await answer.json();
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
