// The console's page. Everything a terminal or a package says is put into the
// page with textContent, never as markup.
'use strict';

const $ = (id) => document.getElementById(id);
const STAGES = ['stream', 'verify', 'install', 'reboot', 'confirmation'];
const STAGE_LABELS = ['stream', 'verify', 'install + microcontroller', 'reboot', 'confirmation'];
const PHASE_INDEX = { waiting: -1, connect: 0, stream: 0, verify: 1, install: 2, reboot: 3,
                      confirm: 4, done: 5, confirmed: 5 };
const SILENT_S = 10; // more than three advertisement periods
const REASONS = [[1, 'update requested'], [2, 'error boot'], [4, 'factory firmware kept']];

let state = { terminals: [], rollout: null, history: [] };
const selected = new Set();

function el(tag, text, cls) {
  const e = document.createElement(tag);
  if (text !== undefined) e.textContent = String(text);
  if (cls) e.className = cls;
  return e;
}

function bytes(n) {
  const units = ['B', 'KiB', 'MiB', 'GiB'];
  let i = 0;
  while (n >= 1024 && i < units.length - 1) { n /= 1024; i++; }
  return (i ? n.toFixed(1) : n) + ' ' + units[i];
}

function duration(s) {
  s = Math.max(0, Math.round(s));
  return Math.floor(s / 60) + ':' + String(s % 60).padStart(2, '0');
}

function reasons(bits) {
  if (bits === undefined) return 'unknown until a dry run';
  const t = REASONS.filter(([b]) => bits & b).map(([, s]) => s);
  return t.length ? t.join(', ') : 'none';
}

async function api(path, body, type) {
  const opts = body === undefined ? {} : {
    method: 'POST', body: type ? body : JSON.stringify(body),
    headers: { 'Content-Type': type || 'application/json' } };
  const res = await fetch(path, opts);
  const j = await res.json().catch(() => ({ error: 'no answer' }));
  if (!res.ok) throw new Error(j.error || res.statusText);
  return j;
}

function say(text, bad) {
  const m = $('message');
  m.textContent = text;
  m.className = bad ? 'error' : '';
}

// ---------------------------------------------------------------- terminals

// Rows are kept by terminal and updated in place, so that a click or a
// selection is never lost to the next update.
const rows = new Map();

function terminalRow(key) {
  const tr = el('tr');
  const box = el('input');
  box.type = 'checkbox';
  box.addEventListener('change', () => {
    box.checked ? selected.add(key) : selected.delete(key);
  });
  const cell = el('td');
  cell.append(box);
  tr.append(cell);
  for (let i = 0; i < 6; i++) tr.append(el('td'));
  return tr;
}

function drawTerminals() {
  const body = $('terminals').tBodies[0];
  $('no-terminals').hidden = state.terminals.length > 0;
  const now = new Set();
  for (const t of state.terminals) {
    now.add(t.key);
    if (!rows.has(t.key)) {
      rows.set(t.key, terminalRow(t.key));
      body.append(rows.get(t.key));
    }
    const tr = rows.get(t.key);
    const silent = t.silent_s > SILENT_S;
    tr.className = silent ? 'silent' : '';
    tr.cells[0].firstChild.checked = selected.has(t.key);
    const cells = [t.identity, t.name, t.installed_version, t.busy ? 'busy' : 'free',
                   reasons(t.reasons),
                   silent ? 'silent for ' + duration(t.silent_s) : Math.round(t.silent_s) + ' s ago'];
    cells.forEach((text, i) => { tr.cells[i + 1].textContent = text; });
    tr.cells[4].className = t.busy ? 'busy' : 'free';
  }
  for (const [key, tr] of rows) {
    if (!now.has(key)) { tr.remove(); rows.delete(key); }
  }
}

// ------------------------------------------------------------------ package

async function loadPackages(choose) {
  const list = await api('/api/packages');
  const sel = $('package');
  const keep = choose || sel.value;
  sel.replaceChildren(el('option', 'choose a package…'));
  sel.options[0].value = '';
  for (const p of list) {
    const o = el('option', p.package + ' (' + bytes(p.size) + ')');
    o.value = p.package;
    sel.append(o);
  }
  sel.value = keep;
}

function showCheck(c) {
  $('check').hidden = false;
  $('check-version').textContent = c.version || 'none: the advertised version stays';
  $('check-size').textContent = bytes(c.size) + ', bitmask 0x' + c.artifacts_bitmask.toString(16);
  const crc = '0x' + c.footer_crc.toString(16).toUpperCase().padStart(8, '0');
  $('check-crc').textContent = crc + (c.payload_crc === c.footer_crc ? ' (matches)' : ' MISMATCH');
  $('check-st').textContent = c.st_bin ? bytes(c.st_bin.size) + ', crc32 0x' +
      c.st_bin.crc32.toString(16).toUpperCase().padStart(8, '0') : 'none: not reprogrammed';
  $('check-signed').textContent = c.signed ? 'yes' : 'no';
  const v = $('check-verdict');
  v.textContent = c.result === 'ok' ? 'ok: the package can be sent' : 'REFUSED: must not be sent';
  v.className = 'verdict-' + c.result;
  $('check-findings').replaceChildren(...c.findings.map(
      (f) => el('li', (f.refuse ? 'refused: ' : 'warning: ') + f.text, f.refuse ? 'refuse' : '')));
  $('check-members').replaceChildren(...c.members.map(
      (m) => el('li', m.name + ' — ' + bytes(m.size) + (m.kind === 'file' ? '' : ', ' + m.kind))));
}

async function checkPackage() {
  const name = $('package').value;
  $('check').hidden = true;
  if (!name) return;
  try {
    showCheck(await api('/api/check?package=' + encodeURIComponent(name)));
  } catch (e) { say(e.message, true); }
}

async function upload(file) {
  say('uploading ' + file.name + '…');
  try {
    const c = await api('/api/upload?name=' + encodeURIComponent(file.name), file,
                        'application/octet-stream');
    await loadPackages(c.package);
    showCheck(c);
    say('uploaded ' + file.name);
  } catch (e) { say('upload refused: ' + e.message, true); }
}

// ------------------------------------------------------------------ actions

function order(all) {
  const keys = all ? state.terminals.map((t) => t.key) : [...selected];
  return {
    package: $('package').value, terminals: keys,
    canary: Number($('canary').value) || 0, max_failures: Number($('max-failures').value) || 0,
    allow_downgrade: $('allow-downgrade').checked, reinstall: $('reinstall').checked,
  };
}

function usable(o) {
  if (!o.package) { say('choose a package first', true); return false; }
  if (!o.terminals.length) { say('select at least one terminal', true); return false; }
  return true;
}

async function dryRun() {
  const o = order(false);
  if (!usable(o)) return;
  say('dry run…');
  try {
    const r = await api('/api/dry-run', o);
    say(r.terminals.map((t) => t.name + ': ' + (t.take === 'update'
        ? t.dry_run.state + ' (exit ' + t.dry_run.exit_code + ')' : 'skipped, ' + t.why)).join('; '));
  } catch (e) { say(e.message, true); }
}

let plan = null;

async function propose(all) {
  const o = order(all);
  if (!usable(o)) return;
  try {
    plan = await api('/api/plan', o);
  } catch (e) { say(e.message, true); return; }
  $('confirm-package').textContent = plan.package;
  $('confirm-list').tBodies[0].replaceChildren(...plan.terminals.map((t) => {
    const tr = el('tr');
    tr.append(el('td', t.identity), el('td', t.name), el('td', t.from), el('td', t.to || '(unchanged)'),
              el('td', t.take === 'update' ? 'update' : 'skip: ' + t.why));
    return tr;
  }));
  $('confirm-go').disabled = !plan.terminals.some((t) => t.take === 'update');
  $('confirm').hidden = false;
  say('');
}

async function confirmPlan() {
  $('confirm').hidden = true;
  try {
    await api('/api/rollout', { plan: plan.plan });
    say('rollout started');
  } catch (e) { say(e.message, true); }
}

// ------------------------------------------------------------------ rollout

function stageCell(i, t) {
  const idx = PHASE_INDEX[t.phase] ?? -1;
  const cell = el('div', undefined, 'stage');
  const fill = el('div', undefined, 'fill');
  let label = STAGE_LABELS[i];
  if (i < idx || (t.phase === 'confirmed' && i <= idx)) {
    cell.classList.add('done');
  } else if (i === idx || (t.failed && i === Math.min(idx, 4))) {
    cell.classList.add(t.failed ? 'failed' : 'active');
    if (i === 0 && t.stream && !t.failed) {
      const s = t.stream;
      const pct = s.total ? Math.floor((100 * s.acked) / s.total) : 0;
      fill.style.width = pct + '%';
      label += ' ' + pct + '%, ' + bytes(s.rate) + '/s' + (s.eta >= 0 ? ', ' + duration(s.eta) + ' left' : '');
    } else if (!t.failed) {
      fill.style.width = '50%';
    }
  }
  cell.dataset.stage = STAGES[i];
  cell.append(fill, el('span', label));
  return cell;
}

function drawRollout() {
  const r = state.rollout;
  $('rollout-section').hidden = !r;
  if (!r) return;
  if (!r.running && $('message').textContent === 'rollout started') say('');
  $('rollout-state').textContent = '— ' + r.package + (r.running ? ', running' : ', ended: ' + r.summary);
  const box = $('rollout');
  box.replaceChildren();
  for (const t of r.terminals) {
    const d = el('div', undefined, 'term');
    d.dataset.key = t.key;
    const head = el('div', undefined, 'term-head');
    head.append(el('strong', t.identity), el('span', t.name, 'muted'),
                el('span', t.from + ' → ' + (t.to || '(unchanged)'), 'muted'));
    let outcome = '';
    let cls = 'outcome';
    if (t.outcome) {
      const o = t.outcome;
      outcome = (o.exit_code === 0 ? (o.confirmation || 'updated') + (o.version_after ? ', running ' + o.version_after : '')
                                   : 'failed: ' + o.message) + ' (exit ' + o.exit_code + ')';
      if (o.exit_code !== 0) cls += ' error';
    } else if (t.phase === 'skipped' || t.phase === 'not started') {
      outcome = t.phase + ': ' + t.why;
    } else {
      outcome = t.phase === 'waiting' ? 'waiting' : 'in progress';
    }
    head.append(el('span', outcome, cls));
    d.append(head);
    if (t.take === 'update') {
      const stages = el('div', undefined, 'stages');
      STAGES.forEach((_, i) => stages.append(stageCell(i, t)));
      d.append(stages);
    }
    const lines = (t.statuses || []).slice();
    if (t.status) lines.push('terminal: ' + t.status.stage_description + ' — ' + t.status.status_message);
    if (lines.length) d.append(el('ul', undefined, 'statuses'));
    for (const l of lines) d.lastChild.append(el('li', l));
    box.append(d);
  }
  const link = $('report-link');
  link.hidden = r.running;
  link.href = '/api/report?id=' + r.id;
  link.download = 'rollout-' + r.id + '.jsonl';
}

function drawHistory() {
  const h = $('history');
  if (!state.history.length) return;
  h.replaceChildren(...state.history.slice().reverse().map((r) => {
    const li = el('li');
    const a = el('a', 'report');
    a.href = '/api/report?id=' + r.id;
    a.download = 'rollout-' + r.id + '.jsonl';
    li.append(el('span', r.ended + ' ' + r.package + ': ' + r.summary + ' '), a);
    return li;
  }));
}

// ------------------------------------------------------------------- wiring

function connect() {
  const es = new EventSource('/api/events');
  es.onopen = () => { $('link').textContent = 'live'; };
  es.onerror = () => { $('link').textContent = 'reconnecting…'; };
  es.onmessage = (ev) => {
    state = JSON.parse(ev.data);
    drawTerminals();
    drawRollout();
    drawHistory();
  };
}

document.addEventListener('DOMContentLoaded', () => {
  // The token came in the address; the cookie carries it from here on.
  if (location.search.includes('token=')) history.replaceState(null, '', '/');
  $('package').addEventListener('change', checkPackage);
  $('upload').addEventListener('change', (e) => e.target.files[0] && upload(e.target.files[0]));
  $('select-all').addEventListener('change', (e) => {
    for (const t of state.terminals) e.target.checked ? selected.add(t.key) : selected.delete(t.key);
    drawTerminals();
  });
  $('dry-run').addEventListener('click', dryRun);
  $('update-selected').addEventListener('click', () => propose(false));
  $('update-all').addEventListener('click', () => propose(true));
  $('confirm-go').addEventListener('click', confirmPlan);
  $('confirm-cancel').addEventListener('click', () => { $('confirm').hidden = true; plan = null; });
  loadPackages().catch((e) => say(e.message, true));
  connect();
});
