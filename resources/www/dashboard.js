// Velm dashboard: one page per area, every datum from the plugin's commands. Anything that came
// from the SAN is inserted as text, never parsed as markup.
'use strict';

const REFRESH_MS = 10000;
const TASK_POLL_MS = 3000;
const TOKEN_KEY = 'velm.token';
const PAGES = ['machine', 'volumes', 'tasks', 'luns', 'history', 'notes'];
// The plugin keeps no list of note classes; these are the objects notes are kept for.
const NOTE_CLASSES = ['computer', 'volume', 'lun', 'person'];
// The plugin's status series carries no texts: naming them is the tool's business.
const STATUS_TEXT = {
  0: 'done', 100005: 'no connection to the local port mapper',
  100036: 'could not start or activate the volume', 100037: 'the stop failed',
  100039: 'the fail-over failed', 100054: 'a controller could not be reached',
  100058: 'a long task runs on the volume',
};
const ACTIONS = [['START', 'Start'], ['STOP', 'Stop'], ['FAIL', 'Fail over'],
                 ['RESTART', 'Restart']];

// busy: a setVolumeState is in flight, and refreshes wait for it.
const app = {token: null, loading: false, busy: false, charts: [], taskTimer: null,
             finishedTasks: new Map()};

// Strings always become text nodes; attributes go through setAttribute, never markup.
function el(tag, attrs, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs || {})) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith('on')) {
      if (typeof value === 'function') node.addEventListener(key.slice(2), value);
    } else {
      node.setAttribute(key, value === true ? '' : String(value));
    }
  }
  for (const child of children.flat(Infinity)) {
    if (child === undefined || child === null || child === false) continue;
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return node;
}

function pageBody(page) {
  return document.querySelector(`#page-${page} .page-body`);
}

function errorText(text) {
  return el('p', {class: 'error', role: 'alert'}, text);
}

function isDict(v) {
  return v !== null && typeof v === 'object' && !Array.isArray(v);
}

function arrayOf(v) {
  return Array.isArray(v) ? v : [];
}

function headerRow(titles) {
  return el('thead', null, el('tr', null, titles.map(t => el('th', {scope: 'col'}, t))));
}

function formatBytes(n) {
  if (typeof n !== 'number' || !Number.isFinite(n)) return '—';
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];
  let i = 0;
  while (Math.abs(n) >= 1024 && i < units.length - 1) { n /= 1024; i++; }
  return i === 0 ? `${n} B` : `${n.toFixed(Math.abs(n) < 10 ? 2 : 1)} ${units[i]}`;
}

// Chart labels: the weekday over a long span, seconds over a short one.
function formatTime(seconds, span) {
  const options = {hour: '2-digit', minute: '2-digit', hour12: false};
  if (span > 86400) options.weekday = 'short';
  if (span < 1800) options.second = '2-digit';
  return new Date(seconds * 1000).toLocaleString([], options);
}

function formatDuration(seconds) {
  if (seconds >= 86400) return `${(seconds / 86400).toFixed(1)} days`;
  if (seconds >= 3600) return `${(seconds / 3600).toFixed(1)} hours`;
  const minutes = Math.max(1, Math.round(seconds / 60));
  return `${minutes} minute${minutes === 1 ? '' : 's'}`;
}

// Any plist value, readable: dictionaries as nested lists, lists of records as tables.
function plistNode(v) {
  if (v === undefined || v === null) return '—';
  if (typeof v === 'boolean') return v ? 'yes' : 'no';
  if (typeof v === 'number' || typeof v === 'string') return String(v).trim() || '(empty)';
  if (Array.isArray(v)) {
    if (v.length === 0) return '(none)';
    if (v.every(item => !isDict(item) && !Array.isArray(item))) return v.map(plistNode).join(', ');
    if (v.every(item => isDict(item) && !('$date' in item) && !('$data' in item))) {
      const columns = [...new Set(v.flatMap(item => Object.keys(item)))];
      return el('table', {class: 'nested'}, headerRow(columns), el('tbody', null, v.map(item =>
        el('tr', null, columns.map(c => el('td', null, plistNode(item[c])))))));
    }
    return el('ol', {class: 'nested'}, v.map(item => el('li', null, plistNode(item))));
  }
  if ('$date' in v) return new Date(v.$date).toLocaleString();
  if ('$data' in v) return `${Math.floor(String(v.$data).length * 3 / 4)} bytes of data`;
  const keys = Object.keys(v);
  if (keys.length === 0) return '(empty)';
  return el('dl', {class: 'nested'},
    keys.map(k => [el('dt', null, k), el('dd', {'data-subkey': k}, plistNode(v[k]))]));
}

class CommandError extends Error {
  constructor(command, detail) {
    super(`${command} failed: ${detail}`);
  }
}

function failureText(e) {
  return e instanceof CommandError ? e.message : `Unexpected failure: ${e}`;
}

function askForToken(message) {
  app.token = null;
  sessionStorage.removeItem(TOKEN_KEY);
  document.getElementById('token-message').textContent = message;
  document.getElementById('token-form').hidden = false;
  document.getElementById('token-input').focus();
}

// #token=...&page=...; decoded by hand, since URLSearchParams would turn a '+' into a blank.
function hashParam(name) {
  const match = new RegExp(`(?:^#|&)${name}=([^&]*)`).exec(location.hash);
  if (!match) return null;
  try { return decodeURIComponent(match[1]); } catch (e) { return match[1]; }
}

// One plugin command; resolves with the response dictionary or throws a CommandError.
async function velm(command, keys = {}) {
  if (!app.token) throw new CommandError(command, 'no admin token');
  const response = await fetch('/commands/velm', {
    method: 'POST',
    cache: 'no-store',
    headers: {'Content-Type': 'application/json', 'Accept': 'application/json',
              'Authorization': `Bearer ${app.token}`},
    body: JSON.stringify({command, ...keys}),
  }).catch(() => null);
  if (!response) throw new CommandError(command, 'the daemon could not be reached');
  if (response.status === 401) askForToken('The daemon refused the token; enter it again.');
  if (!response.ok) throw new CommandError(command, `HTTP ${response.status}`);
  const body = await response.json().catch(() => null);
  if (!isDict(body)) throw new CommandError(command, 'the answer is not a JSON dictionary');
  return body;
}

const MACHINE_GROUPS = [
  ['Identity', ['name', 'multicastDNSName', 'legacyHostName', 'uuid', 'sanName', 'role',
                'serverAssistantRole', 'serverAssistantDSType', 'authSecret']],
  ['Addresses', ['networkInterfaces', 'availableNetworkInterfaceNames', 'nameServers',
                 'searchPolicy']],
  ['Versions', ['hostOSVersion', 'velmVersion', 'serverFSVersion', 'clientFSVersion',
                'needsUpdate', 'legacyMetadataNIC', 'legacyMetadataIP', 'legacySanName']],
  ['Hardware', ['computerKind', 'technicalComputerKind', 'cpuKind', 'cpuCount', 'cpuSpeed',
                'ramSize']],
];
const LABELS = {
  name: 'Computer name', multicastDNSName: 'Local host name', legacyHostName: 'Host name',
  uuid: 'Identity (UUID)', sanName: 'SAN name', serverAssistantRole: 'Controller role',
  serverAssistantDSType: 'Directory type', authSecret: 'Shared secret',
  availableNetworkInterfaceNames: 'Free interfaces', hostOSVersion: 'Operating system',
  serverFSVersion: 'Server file system', clientFSVersion: 'Client file system',
  needsUpdate: 'Needs configuration update', legacyMetadataNIC: 'Old metadata interface',
  legacyMetadataIP: 'Old metadata address', legacySanName: 'Old SAN name',
  computerKind: 'Model', technicalComputerKind: 'Model identifier', cpuKind: 'Processor',
  cpuCount: 'Processors', cpuSpeed: 'Processor clock', ramSize: 'Memory',
  fsmpmRunning: 'Port mapper running',
};

function labelFor(key) {
  if (LABELS[key]) return LABELS[key];
  const running = /^fsmRunning_(.*)$/.exec(key);
  if (running) return `FSM of ${running[1]} running`;
  const parsable = /^configParsable_(.*)$/.exec(key);
  if (parsable) return `${parsable[1]} readable`;
  const words = key.replace(/([a-z0-9])([A-Z])/g, '$1 $2').toLowerCase();
  return words.charAt(0).toUpperCase() + words.slice(1);
}

function machineValue(key, value) {
  // The hardware readers give 0 for what the host doesn't tell.
  if (key === 'ramSize') return value > 0 ? formatBytes(value) : 'not reported';
  if (key === 'cpuSpeed') return value > 0 ? `${(value / 1e9).toFixed(2)} GHz` : 'not reported';
  // The SAN's shared secret travels in the answer; the dashboard doesn't show it.
  if (key === 'authSecret') return value ? 'set (hidden)' : 'not set';
  return plistNode(value);
}

function keyValueList(dict, keys) {
  return el('dl', {class: 'kv'}, keys.filter(k => k in dict).map(k =>
    [el('dt', null, labelFor(k)), el('dd', {'data-key': k}, machineValue(k, dict[k]))]));
}

function renderHeader(properties) {
  const role = typeof properties.role === 'string' ? properties.role : '';
  document.getElementById('host-name').textContent =
    properties.name || properties.legacyHostName || 'unknown host';
  const roleNode = document.getElementById('host-role');
  roleNode.textContent = role.toLowerCase();
  roleNode.dataset.role = role;
  document.getElementById('san-name').textContent =
    properties.sanName ? `SAN ${properties.sanName}` : '';
}

async function renderMachine() {
  const body = pageBody('machine');
  try {
    const r = await velm('getComputerProperties');
    const properties = isDict(r.properties) ? r.properties : {};
    const health = isDict(r.clientHealth) ? r.clientHealth : {};
    renderHeader(properties);
    const grouped = new Set(MACHINE_GROUPS.flatMap(([, keys]) => keys));
    const groups = [...MACHINE_GROUPS,
                    ['Other', Object.keys(properties).filter(k => !grouped.has(k)).sort()]];
    body.replaceChildren(el('div', {class: 'groups'},
      groups.filter(([, keys]) => keys.some(k => k in properties)).map(([title, keys]) =>
        el('section', {class: 'group'}, el('h3', null, title), keyValueList(properties, keys))),
      el('section', {class: 'group', id: 'client-health'}, el('h3', null, 'Client health'),
        Object.keys(health).length ? keyValueList(health, Object.keys(health).sort())
                                   : el('p', {class: 'empty'}, 'No health record.'))));
  } catch (e) {
    body.replaceChildren(errorText(failureText(e)));
  }
}

// Controller addresses by uuid, from the SAN's configuration.
async function controllerAddresses() {
  const r = await velm('readSettings');
  const byUuid = new Map();
  for (const c of arrayOf(isDict(r.configuration) && r.configuration.computers).filter(isDict)) {
    if (Array.isArray(c.ipAddresses)) byUuid.set(c.uuid, c.ipAddresses.map(String));
  }
  return byUuid;
}

// The plugin reports one FSM per volume, so the standbys are the volume's other enabled
// controllers in failover order; a stopped volume has none.
function standbysOf(volume, stats, running, addresses) {
  if (!running) return [];
  const active = stats.State === 2 ? stats.IPAddress : null;
  return arrayOf(isDict(volume.AuxData) && volume.AuxData.FailoverPriorities)
    .filter(p => isDict(p) && p.enabled === true)
    .map(p => (addresses.get(p.controllerUUID) || [p.controllerUUID])[0])
    .filter(ip => ip && ip !== active);
}

function freeSpaceText(stats) {
  const {RemainingSize: free, TotalSize: total} = stats;
  if (typeof free !== 'number' || typeof total !== 'number') return '—';
  const percent = total > 0 ? ` (${Math.round(free * 100 / total)} %)` : '';
  return `${formatBytes(free)} of ${formatBytes(total)}${percent}`;
}

function volumeRow(volume, detail, note, addresses) {
  const name = volume.Name;
  const groups = arrayOf(volume.StripeGroups).filter(isDict).map(g => g.StripeGroup)
    .filter(g => typeof g === 'string');
  const actions = el('td', {class: 'actions'}, ACTIONS.map(([state, label]) =>
    el('button', {type: 'button', 'data-action': state, 'aria-label': `${label} ${name}`,
                  onclick: () => changeVolumeState(name, state, label)}, label)));
  const noteCell = el('td', {class: 'note', 'data-field': 'notes'}, note || '');
  const nameCell = el('th', {scope: 'row', 'data-field': 'name'}, name);
  if (detail instanceof Error) {
    return el('tr', {'data-volume': name}, nameCell,
      el('td', {colspan: 6, class: 'error', 'data-field': 'state'}, failureText(detail)),
      noteCell, actions);
  }
  const info = isDict(detail.volumeInfo) ? detail.volumeInfo : {};
  const stats = isDict(info.VolumeStats) ? info.VolumeStats : {};
  const running = detail.state === 'RUNNING';
  const clients = typeof stats.NumConnectedClients === 'number' ? stats.NumConnectedClients
    : Array.isArray(info.Clients) ? info.Clients.length : '—';
  const active = stats.State !== 2 ? '—'
    : stats.Host && stats.Host !== stats.IPAddress ? `${stats.Host} (${stats.IPAddress})`
    : stats.IPAddress;
  const standbys = standbysOf(volume, stats, running, addresses);
  return el('tr', {'data-volume': name, 'data-state': detail.state || ''}, nameCell,
    el('td', {'data-field': 'state'},
      el('span', {class: running ? 'state running' : 'state stopped'}, detail.state || '—')),
    el('td', {'data-field': 'active'}, active),
    el('td', {'data-field': 'standbys'}, standbys.length ? standbys.join(', ') : '—'),
    el('td', {class: 'num', 'data-field': 'clients'}, clients),
    el('td', {'data-field': 'stripeGroups'}, groups.length ? groups.join(', ') : '—'),
    el('td', {'data-field': 'freeSpace'}, freeSpaceText(stats)),
    noteCell, actions);
}

async function renderVolumes(volumesPromise) {
  const body = pageBody('volumes');
  try {
    const volumes = await volumesPromise;
    if (volumes.length === 0) {
      body.replaceChildren(el('p', {class: 'empty'}, 'No volumes are configured here.'));
      return;
    }
    const names = volumes.map(v => v.Name);
    const [addresses, notes, ...details] = await Promise.all([
      controllerAddresses().catch(() => new Map()),
      velm('getNotes', {notes: names.map(name => ({class: 'volume', name}))})
        .then(r => arrayOf(r.notes), () => []),
      ...names.map(name => velm('getVolumeState', {name, variant: 'withDetails'})
        .then(r => (r.error ? new CommandError('getVolumeState', r.error) : r), e => e)),
    ]);
    const noteOf = new Map(notes.filter(isDict).map(n => [n.name, n.contents]));
    body.replaceChildren(el('table', {id: 'volume-table', class: 'data'},
      el('caption', null, `${volumes.length} volume${volumes.length === 1 ? '' : 's'}`),
      headerRow(['Volume', 'State', 'Active controller', 'Standbys', 'Clients', 'Stripe groups',
                 'Free space', 'Notes', 'Actions']),
      el('tbody', null,
        volumes.map((v, i) => volumeRow(v, details[i], noteOf.get(v.Name), addresses)))));
  } catch (e) {
    body.replaceChildren(errorText(failureText(e)));
  }
}

async function changeVolumeState(name, state, label) {
  if (!window.confirm(`${label} volume "${name}"?`)) return;
  const status = document.getElementById('volume-action-status');
  const row = [...document.querySelectorAll('#volume-table tr[data-volume]')]
    .find(tr => tr.dataset.volume === name);
  if (row) row.querySelectorAll('button').forEach(b => { b.disabled = true; });
  status.className = 'action-status';
  status.textContent = `${label} ${name}: waiting for the controllers…`;
  app.busy = true;
  try {
    const r = await velm('setVolumeState', {name, state});
    if (r.error) {
      status.textContent = `${label} ${name} failed: ${r.error}`;
    } else {
      status.textContent = `${label} ${name}: status ${r.status ?? '—'} ` +
        `(${STATUS_TEXT[r.status] || 'failed'}); the volume is ` +
        `${r.state || 'in an unknown state'}.`;
    }
    if (r.error || r.status !== 0) status.classList.add('error');
  } catch (e) {
    status.textContent = failureText(e);
    status.classList.add('error');
  } finally {
    app.busy = false;
  }
  loadAll();
}

function taskRow(name, r) {
  const percent = typeof r.percentComplete === 'number' ? r.percentComplete : null;
  // Stages count from 0.
  const stage = typeof r.currentStepNumber === 'number' ? ` (stage ${r.currentStepNumber + 1})` : '';
  return el('tr', {'data-task-volume': name},
    el('th', {scope: 'row'}, name),
    el('td', null, r.currentTask ?? '—'),
    el('td', null, `${r.currentStep ?? '—'}${stage}`),
    el('td', null, percent === null ? '—' : [
      el('progress', {max: 100, value: percent, 'aria-label': `${name} progress`}),
      ` ${percent.toFixed(1)} %`]),
    el('td', null, r.PID ?? '—'));
}

// A task's end is reported once, to the poll that notices it; keep what that poll was told.
function noteFinished(name, r) {
  const outcome = r.errorCode === undefined ? 'finished'
    : `failed with code ${r.errorCode}${r.errorMessage ? ` (${r.errorMessage})` : ''}`;
  app.finishedTasks.set(name,
    `${r.currentTask || 'Task'} on ${name} ${outcome} at ${new Date().toLocaleTimeString()}.`);
}

// The plugin lists no tasks: each volume is asked, and one without a task says ProgressDone.
async function renderTasks(volumesPromise) {
  const body = pageBody('tasks');
  clearTimeout(app.taskTimer);
  let rows = [];
  try {
    const names = (await volumesPromise).map(v => v.Name);
    const answers = await Promise.all(names.map(volumeName =>
      velm('readProgress', {volumeName}).catch(e => e)));
    const errors = [];
    answers.forEach((r, i) => {
      if (r instanceof Error) errors.push(errorText(failureText(r)));
      else if (r.ProgressDone || r.error) return;
      else if (r.errorCode !== undefined || r.percentComplete >= 100) noteFinished(names[i], r);
      else rows.push(taskRow(names[i], r));
    });
    const finished = [...app.finishedTasks.values()];
    body.replaceChildren(...errors,
      rows.length ? el('table', {id: 'task-table', class: 'data'},
        headerRow(['Volume', 'Task', 'Step', 'Progress', 'Process']), el('tbody', null, rows))
        : el('p', {class: 'empty', id: 'no-tasks'}, 'No running tasks'),
      finished.length ? [el('h3', null, 'Finished since the page was opened'),
                         el('ul', {class: 'finished'}, finished.map(t => el('li', null, t)))] : []);
  } catch (e) {
    rows = [];
    body.replaceChildren(errorText(failureText(e)));
  }
  // Follow a running task closely; otherwise the general refresh is enough.
  if (rows.length) app.taskTimer = setTimeout(() => renderTasks(volumeList()), TASK_POLL_MS);
}

// The label tool's records spell some keys either way.
const LUN_COLUMNS = [
  ['Label', 'label', ['Label']],
  ['Label type', 'labelType', ['LabelType']],
  ['Size', 'size', ['size', 'Size'], formatBytes],
  ['Serial', 'serial', ['serialNumber', 'SerialNumber']],
  ['Connection', 'connection', ['connectionType', 'ConnectionType']],
  ['Sector size', 'sectorSize', ['sectorSize', 'SectorSize']],
];
const LUN_SHOWN = new Set(LUN_COLUMNS.flatMap(([, , keys]) => keys));

function lunCell(lun, [, field, keys, format]) {
  const value = lun[keys.find(k => k in lun)];
  return el('td', {'data-field': field}, format ? format(value) : plistNode(value));
}

async function renderLUNs() {
  const body = pageBody('luns');
  try {
    const r = await velm('getLUNs');
    const luns = isDict(r.visibleLUNs) ? r.visibleLUNs : {};
    const devices = Object.keys(luns).sort();
    if (devices.length === 0) {
      body.replaceChildren(el('p', {class: 'empty'}, 'This machine sees no LUNs.'));
      return;
    }
    body.replaceChildren(el('table', {id: 'lun-table', class: 'data'},
      el('caption', null, `${devices.length} LUN${devices.length === 1 ? '' : 's'}`),
      headerRow(['Device', ...LUN_COLUMNS.map(([title]) => title), 'Other']),
      el('tbody', null, devices.map(device => {
        const lun = isDict(luns[device]) ? luns[device] : {};
        const rest = Object.fromEntries(Object.entries(lun).filter(([k]) => !LUN_SHOWN.has(k)));
        return el('tr', {'data-lun': device},
          el('th', {scope: 'row', 'data-field': 'device'}, device),
          LUN_COLUMNS.map(column => lunCell(lun, column)),
          el('td', {'data-field': 'other'}, Object.keys(rest).length ? plistNode(rest) : ''));
      }))));
  } catch (e) {
    body.replaceChildren(errorText(failureText(e)));
  }
}

// Columns go into charts by their names; a column that no group takes gets a chart of its own.
const CHART_GROUPS = [
  {title: 'CPU', unit: '%', names: ['CPU_USAGE']},
  {title: 'Fibre throughput', unit: 'B/s', names: ['FIBRE_THROUGHPUT']},
  {title: 'Network throughput', unit: 'B/s',
   names: ['NETWORK_THROUGHPUT', 'NETWORK_INPUT', 'NETWORK_OUTPUT']},
  {title: 'Network packets', unit: 'packets/s',
   names: ['NETWORK_PACKETS', 'NETWORK_PACKETS_INPUT', 'NETWORK_PACKETS_OUTPUT']},
  {title: 'Network by interface', unit: 'B/s', prefix: 'NETWORK_THROUGHPUT_'},
  {title: 'Packets by interface', unit: 'packets/s', prefix: 'NETWORK_PACKETS_THROUGHPUT_'},
  {title: 'Memory', unit: 'B', names: ['RSIZE_USAGE', 'VSIZE_USAGE']},
];
const SERIES_NAMES = {
  NETWORK_THROUGHPUT: 'Total', NETWORK_INPUT: 'In', NETWORK_OUTPUT: 'Out',
  NETWORK_PACKETS: 'Total', NETWORK_PACKETS_INPUT: 'In', NETWORK_PACKETS_OUTPUT: 'Out',
  RSIZE_USAGE: 'Resident size', VSIZE_USAGE: 'Virtual size',
};
// The store answers from its ring of recent rows unless asked for more than that ring spans, and
// then from its ring of 5-minute means; the choices say which one they will read.
const RANGES = [[0, 'All recent rows'], [900, 'Last 15 minutes'], [3600, 'Last hour'],
                [21600, 'Last 6 hours'], [86400, 'Last day'], [604800, 'Last week']];
const COLORS = ['#2f6db5', '#c2571a', '#2e8b57', '#8a4fb8', '#b8860b', '#c23b6b'];

function chartGroupFor(name) {
  return CHART_GROUPS.find(g => (g.names && g.names.includes(name)) ||
                                (g.prefix && name.startsWith(g.prefix))) || {title: name, unit: ''};
}

function tableTitle(identifier) {
  if (identifier === 'system') return 'This machine';
  const volume = /^volumeHistory:(.*)$/.exec(identifier);
  return volume ? `Volume ${volume[1]} (file system manager)` : identifier;
}

function updateRangeChoices(recentSpan) {
  const select = document.getElementById('history-range');
  const chosen = select.value || '0';
  select.replaceChildren(...RANGES.map(([seconds, label]) => {
    let text = label;
    if (recentSpan !== null && seconds === 0) text += ` (${formatDuration(recentSpan)})`;
    else if (recentSpan !== null && seconds > recentSpan) text += ' (5-minute means)';
    return el('option', {value: seconds, selected: String(seconds) === chosen}, text);
  }));
}

function axisText(unit, value) {
  if (unit === 'B') return formatBytes(value);
  if (unit === 'B/s') return `${formatBytes(value)}/s`;
  return unit === '%' ? `${value} %` : String(value);
}

// One chart per group of the table's columns: its figure, and the step that draws it once the
// canvas is in the page (Chart.js measures it).
function historyCharts(identifier, r) {
  const keys = isDict(r.keys) ? r.keys : {};
  const factors = isDict(r.factors) ? r.factors : {};
  const samples = arrayOf(r.samplesArray).filter(isDict);
  const groups = new Map();
  for (const column of Object.keys(keys).sort((a, b) => a.slice(1) - b.slice(1))) {
    const name = String(keys[column]);
    const group = chartGroupFor(name);
    if (!groups.has(group.title)) groups.set(group.title, {group, series: []});
    groups.get(group.title).series.push([column, name]);
  }
  const span = samples.length ? samples[samples.length - 1].time - samples[0].time : 0;
  const labels = samples.map(s => formatTime(s.time, span));
  return [...groups.values()].map(({group, series}) => {
    const canvas = el('canvas', {class: 'history-chart', 'data-table': identifier,
                                 'data-chart': group.title, 'data-points': samples.length,
                                 role: 'img', 'aria-label': `${group.title} (${identifier})`});
    const figure = el('figure', {class: 'chart'}, el('figcaption', null, group.title),
                      el('div', {class: 'chart-box'}, canvas));
    const datasets = series.map(([column, name], i) => ({
      label: SERIES_NAMES[name] || name,
      data: samples.map(s => (typeof s[column] === 'number'
        ? s[column] * (typeof factors[column] === 'number' ? factors[column] : 1) : null)),
      borderColor: COLORS[i % COLORS.length],
      backgroundColor: COLORS[i % COLORS.length],
      borderWidth: 1.5,
      pointRadius: 0,
    }));
    const draw = () => app.charts.push(new Chart(canvas, {
      type: 'line',
      data: {labels, datasets},
      options: {
        animation: false,
        maintainAspectRatio: false,
        interaction: {mode: 'index', intersect: false},
        scales: {
          x: {ticks: {maxTicksLimit: 6, maxRotation: 0}},
          y: {beginAtZero: true, ticks: {callback: v => axisText(group.unit, v)}},
        },
        plugins: {legend: {display: series.length > 1}},
      },
    }));
    return {figure, draw};
  });
}

function destroyCharts() {
  for (const chart of app.charts) chart.destroy();
  app.charts = [];
}

async function renderHistory() {
  const body = pageBody('history');
  const timeScale = Number(document.getElementById('history-range').value) || 0;
  try {
    const info = await velm('getHistoryInfo');
    if (info.error) throw new CommandError('getHistoryInfo', info.error);
    const tables = arrayOf(info.historyInfo)
      .filter(d => isDict(d) && typeof d.identifier === 'string');
    const answers = await Promise.all(tables.map(({identifier}) => velm('getHistory',
      timeScale > 0 ? {identifier, timeScale} : {identifier}).catch(e => e)));
    const system = answers[tables.findIndex(d => d.identifier === 'system')];
    if (timeScale === 0 && isDict(system)) {
      const times = arrayOf(system.samplesArray).filter(isDict).map(s => s.time);
      updateRangeChoices(times.length ? times[times.length - 1] - times[0] : 0);
    }
    const draws = [];
    const sections = tables.map(({identifier}, i) => {
      const r = answers[i];
      const section = el('section', {class: 'history-table', 'data-table': identifier},
                         el('h3', null, tableTitle(identifier)));
      if (r instanceof Error) section.append(errorText(failureText(r)));
      else if (r.error) section.append(el('p', {class: 'empty'}, r.error));
      else {
        const charts = historyCharts(identifier, r);
        draws.push(...charts.map(c => c.draw));
        section.append(el('div', {class: 'charts'}, charts.map(c => c.figure)));
      }
      return section;
    });
    destroyCharts();
    body.replaceChildren(...sections);
    if (sections.length === 0) body.append(el('p', {class: 'empty'}, 'No history tables.'));
    if (typeof Chart === 'undefined') body.prepend(errorText('The chart library did not load.'));
    else draws.forEach(draw => draw());
  } catch (e) {
    destroyCharts();
    body.replaceChildren(errorText(failureText(e)));
  }
}

function notificationsNode(c) {
  const server = isDict(c.ServerSettings) ? c.ServerSettings : {};
  const addresses = arrayOf(c.Addresses).filter(isDict);
  // A pager is "YES" or a true number; nothing else counts.
  const pager = a => a.page === 'YES' || (typeof a.page === 'number' && a.page !== 0);
  return el('div', {id: 'notifications'},
    el('dl', {class: 'kv'},
      el('dt', null, 'Mail relay'),
      el('dd', {'data-key': 'ServerAddress'}, server.ServerAddress || 'local mail system'),
      el('dt', null, 'Sender'),
      el('dd', {'data-key': 'EmailAddress'}, server.EmailAddress || '—'),
      el('dt', null, 'Conditions'), el('dd', {'data-key': 'Conditions'}, plistNode(c.Conditions))),
    el('h4', null, 'Recipients'),
    addresses.length === 0 ? el('p', {class: 'empty'}, 'No recipients.')
      : el('ul', {class: 'recipients'}, addresses.map(a =>
          el('li', null, a.email ?? '(no address)', pager(a) ? ' (pager)' : ''))));
}

async function renderNotes() {
  const body = pageBody('notes');
  const [notes, config, types] = await Promise.all([
    velm('getAllNotes', {classes: NOTE_CLASSES}).catch(e => e),
    velm('getNotificationsConfiguration').catch(e => e),
    velm('getNotificationsTypes').catch(e => e),
  ]);
  const parts = [el('h3', null, 'Notes')];
  const list = notes instanceof Error ? [] : arrayOf(notes.notes).filter(isDict);
  if (notes instanceof Error) parts.push(errorText(failureText(notes)));
  else if (list.length === 0) parts.push(el('p', {class: 'empty'}, 'No notes.'));
  else {
    parts.push(el('table', {id: 'note-table', class: 'data'}, headerRow(['Kind', 'Name', 'Note']),
      el('tbody', null, list.map(n =>
        el('tr', {'data-note-class': n.class, 'data-note-name': n.name},
          el('td', null, n.class), el('th', {scope: 'row'}, n.name),
          el('td', {class: 'note'}, n.contents))))));
  }
  parts.push(el('h3', null, 'Notifications'));
  if (config instanceof Error) parts.push(errorText(failureText(config)));
  else if (isDict(config.config)) parts.push(notificationsNode(config.config));
  else parts.push(el('p', {class: 'empty', id: 'notifications-off'}, 'Notifications are off.'));
  if (types instanceof Error) parts.push(errorText(failureText(types)));
  else parts.push(el('p', {class: 'types'}, 'Types: ', arrayOf(types.types).join(', ')));
  body.replaceChildren(...parts);
}

function showPage(page) {
  for (const tab of document.querySelectorAll('.tabs [data-page]')) {
    const selected = tab.dataset.page === page;
    tab.setAttribute('aria-selected', String(selected));
    document.getElementById(`page-${tab.dataset.page}`).hidden = !selected;
  }
  // Only the page stays in the address bar; this also drops a token that came in there.
  history.replaceState(null, '', `${location.pathname}${location.search}#page=${page}`);
  // A chart drawn while hidden has no size; let Chart.js measure again.
  if (page === 'history') app.charts.forEach(chart => chart.resize());
}

function volumeList() {
  return velm('getVolumes').then(r => {
    if (r.error) throw new CommandError('getVolumes', r.error);
    return arrayOf(r.volumes).filter(v => isDict(v) && typeof v.Name === 'string');
  });
}

async function loadAll() {
  if (app.loading || app.busy) return;
  if (!app.token) {
    const waiting = 'Enter the admin token to load this page.';
    PAGES.forEach(page => pageBody(page).replaceChildren(el('p', {class: 'empty'}, waiting)));
    document.body.dataset.ready = '1';
    return;
  }
  app.loading = true;
  const volumes = volumeList();
  volumes.catch(() => {});  // each page that uses the list reports its failure
  await Promise.allSettled([renderMachine(), renderVolumes(volumes), renderTasks(volumes),
                            renderLUNs(), renderHistory(), renderNotes()]);
  app.loading = false;
  document.getElementById('last-refresh').textContent =
    `Updated ${new Date().toLocaleTimeString()}`;
  document.body.dataset.ready = '1';
}

function start() {
  const urlToken = hashParam('token');
  if (urlToken) sessionStorage.setItem(TOKEN_KEY, urlToken);
  const page = hashParam('page');
  showPage(PAGES.includes(page) ? page : 'machine');
  app.token = sessionStorage.getItem(TOKEN_KEY);
  if (!app.token) askForToken('Enter the admin token of this daemon.');

  document.getElementById('token-form').addEventListener('submit', event => {
    event.preventDefault();
    const input = document.getElementById('token-input');
    const token = input.value.trim();
    input.value = '';
    if (!token) return;
    app.token = token;
    sessionStorage.setItem(TOKEN_KEY, token);
    document.getElementById('token-form').hidden = true;
    loadAll();
  });
  document.querySelectorAll('.tabs [data-page]').forEach(tab =>
    tab.addEventListener('click', () => showPage(tab.dataset.page)));
  document.getElementById('refresh-now').addEventListener('click', () => loadAll());
  document.getElementById('history-range').addEventListener('change', () => renderHistory());
  updateRangeChoices(null);
  loadAll();
  setInterval(() => { if (app.token) loadAll(); }, REFRESH_MS);
}

start();
