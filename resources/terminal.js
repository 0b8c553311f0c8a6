// The terminal page: one xterm.js terminal per remote PTY. The native side calls the functions below;
// the page answers through the web channel object "bridge" (termReady, termInput, termResize, and
// ack for flow control: the number of bytes each terminal has finished writing).
'use strict';

const THEMES = {
  light: { background: '#ffffff', foreground: '#1e1e1e', cursor: '#1e1e1e', cursorAccent: '#ffffff',
           selectionBackground: 'rgba(0,120,212,0.25)',
           black: '#000000', red: '#c91b00', green: '#00a600', yellow: '#a68b00', blue: '#0451a5',
           magenta: '#bc05bc', cyan: '#0598bc', white: '#555555', brightBlack: '#686868', brightRed: '#e74856',
           brightGreen: '#16c60c', brightYellow: '#b5a000', brightBlue: '#3b78ff', brightMagenta: '#b4009e',
           brightCyan: '#0aa3b5', brightWhite: '#1e1e1e' },
  dark: { background: '#1e1e1e', foreground: '#d4d4d4', cursor: '#d4d4d4', cursorAccent: '#1e1e1e',
          selectionBackground: 'rgba(38,79,120,0.8)',
          black: '#000000', red: '#cd3131', green: '#0dbc79', yellow: '#e5e510', blue: '#2472c8',
          magenta: '#bc3fbc', cyan: '#11a8cd', white: '#e5e5e5', brightBlack: '#666666', brightRed: '#f14c4c',
          brightGreen: '#23d18b', brightYellow: '#f5f543', brightBlue: '#3b8eea', brightMagenta: '#d670d6',
          brightCyan: '#29b8db', brightWhite: '#e5e5e5' },
};

const terminals = new Map();  // id -> { term, fit, search, el, masked, writes, backlog, backlogBytes, pumped }
let bridge = null;
let activeId = 0;
let themeName = 'light';
let renderer = 'dom';          // the renderer that works here: 'webgl' or 'dom'
let ackTimer = null;
const pendingAcks = new Map(); // id -> bytes written since the last ack
const stats = { received: 0, written: 0, acked: 0 };  // bytes, for diagnostics
// Diagnostics: milliseconds from typed data leaving through "termInput" to the next output of the same
// terminal having been written (its echo). Off unless __startEchoProbe() is called.
// Each sample is also split in two: until the output call reached the page, and its write.
const echoProbe = { on: false, sentAt: new Map(), arrivedAt: new Map(), samples: [], stages: [] };

function toBytes(b64) {
  const bin = atob(b64);
  const out = new Uint8Array(bin.length);
  for (let i = 0; i < bin.length; i++) out[i] = bin.charCodeAt(i);
  return out;
}

// What the native side counts for a text it handed over (it only hands over well-formed base64).
function decodedLength(b64) {
  let n = Math.floor(b64.length / 4) * 3;
  if (b64.endsWith('==')) n -= 2; else if (b64.endsWith('=')) n -= 1;
  return n;
}

// The shown terminal's output is written at once. A hidden terminal's output waits in its backlog and is
// written a small piece at a time, only while the shown terminal has nothing to write (or once the
// hidden ones have waited MAX_DEFER_MS), so that an echo in the shown terminal never queues behind a
// hidden terminal's flood. Hidden terminals are not drawn; their output is complete and in order when
// they are shown, because showing one writes the rest of its backlog first.
const PIECE_BYTES = 16 * 1024;
const HIDDEN_IN_FLIGHT = 64 * 1024;  // handed to hidden terminals and not yet written, so no write waits for a wake-up
const MAX_DEFER_MS = 50;
const pump = { scheduled: false, inFlight: 0, lastPieceAt: 0, cursor: 0, deferTimer: null,
               channel: new MessageChannel() };
pump.channel.port1.onmessage = pumpStep;

function schedulePump() {
  if (pump.scheduled || pump.inFlight >= HIDDEN_IN_FLIGHT) return;
  pump.scheduled = true;
  pump.channel.port2.postMessage(0);  // a task of its own, not a clamped timer
}

function pumpStep() {
  pump.scheduled = false;
  while (pump.inFlight < HIDDEN_IN_FLIGHT) {
    const waiting = Array.from(terminals.keys()).filter((id) => terminals.get(id).backlog.length > 0).sort((a, b) => a - b);
    if (!waiting.length) return;
    const shown = terminals.get(activeId);
    const deferredFor = performance.now() - pump.lastPieceAt;
    if (shown && shown.writes > 0 && deferredFor < MAX_DEFER_MS) {
      // Woken again when the shown terminal has written everything, or when the wait is up.
      if (pump.deferTimer === null) {
        pump.deferTimer = setTimeout(() => { pump.deferTimer = null; schedulePump(); }, MAX_DEFER_MS - deferredFor + 1);
      }
      return;
    }
    const id = waiting.find((x) => x > pump.cursor) || waiting[0];
    pump.cursor = id;
    const t = terminals.get(id);
    const piece = takePiece(t);
    pump.inFlight += piece.length;
    t.pumped += piece.length;
    pump.lastPieceAt = performance.now();
    t.term.write(piece, () => {
      if (terminals.get(id) !== t) return;  // removed meanwhile: its share is gone already
      pump.inFlight -= piece.length;
      t.pumped -= piece.length;
      written(id, piece.length);
      schedulePump();
    });
  }
}

// Up to PIECE_BYTES from the front of a backlog, small chunks joined (each write has its own cost).
function takePiece(t) {
  let n = 0, k = 0;
  while (k < t.backlog.length && n + t.backlog[k].length <= PIECE_BYTES) n += t.backlog[k++].length;
  let piece;
  if (k === 0) {
    piece = t.backlog[0].subarray(0, PIECE_BYTES);
    t.backlog[0] = t.backlog[0].subarray(PIECE_BYTES);
  } else if (k === 1) {
    piece = t.backlog.shift();
  } else {
    piece = new Uint8Array(n);
    let at = 0;
    for (const chunk of t.backlog.splice(0, k)) { piece.set(chunk, at); at += chunk.length; }
  }
  t.backlogBytes -= piece.length;
  return piece;
}

// Written straight into the terminal (the shown one, or a hidden one's backlog when it is shown).
function writeNow(t, id, bytes) {
  t.writes++;
  t.term.write(bytes, () => {
    t.writes--;
    written(id, bytes.length);
    if (t.writes === 0 && id === activeId) schedulePump();
  });
}

function drainBacklog(t, id) {
  const backlog = t.backlog;
  t.backlog = [];
  t.backlogBytes = 0;
  for (const bytes of backlog) writeNow(t, id, bytes);
}

function written(id, n) {
  stats.written += n;
  queueAck(id, n);
  if (echoProbe.sentAt.has(id)) {
    const now = performance.now(), sent = echoProbe.sentAt.get(id);
    const arrived = echoProbe.arrivedAt.has(id) ? echoProbe.arrivedAt.get(id) : now;
    if (echoProbe.samples.length < 100000) {
      echoProbe.samples.push(now - sent);
      echoProbe.stages.push([arrived - sent, now - arrived]);
    }
    echoProbe.sentAt.delete(id);
    echoProbe.arrivedAt.delete(id);
  }
}

function queueAck(id, n) {
  pendingAcks.set(id, (pendingAcks.get(id) || 0) + n);
  if (ackTimer === null) ackTimer = setTimeout(flushAcks, 8);
}

function flushAcks() {
  ackTimer = null;
  if (!bridge) return;
  for (const [id, n] of pendingAcks) { bridge.ack(id, n); stats.acked += n; }
  pendingAcks.clear();
}

function loadRenderer(entry) {
  // WebGL where the GPU draws it; otherwise the DOM renderer built in. Measured here: without a GPU
  // the canvas and software-WebGL renderers write output dozens of times slower than the DOM one.
  entry.renderer = 'dom';
  if (renderer !== 'webgl') return;
  try {
    const webgl = new WebglAddon.WebglAddon();
    webgl.onContextLoss(() => { webgl.dispose(); renderer = 'dom'; entry.renderer = 'dom'; });
    entry.term.loadAddon(webgl);
    entry.renderer = 'webgl';
  } catch (e) { renderer = 'dom'; }
}

// xterm.js asks its renderer to redraw every row of the screen whenever the selection may have moved,
// and it thinks so at every scroll: a flood pays for a second full redraw per frame, and a hidden
// terminal (whose renderer is otherwise paused) is drawn all the same, measuring each glyph anew because
// an element that is not displayed has no width. Without a selection before or after there is nothing
// to redraw; while hidden, the redraw waits for the terminal to be shown (the renderer then draws it
// whole, selection included). Only where the renderer service looks as expected.
function skipIdleSelectionRedraws(term) {
  const rs = term._core && term._core._renderService;
  if (!rs || typeof rs.handleSelectionChanged !== 'function' || !rs._selectionState || !('_isPaused' in rs)) return;
  const redraw = rs.handleSelectionChanged.bind(rs);
  rs.handleSelectionChanged = (start, end, columnSelectMode) => {
    const s = rs._selectionState;
    const unchanged = !start && !end && !s.start && !s.end;
    if (!unchanged && !rs._isPaused) { redraw(start, end, columnSelectMode); return; }
    s.start = start;
    s.end = end;
    s.columnSelectMode = columnSelectMode;
    if (rs._isPaused && !unchanged) rs._needsSelectionRefresh = true;
  };
}

function reportSize(id) {
  const t = terminals.get(id);
  if (t && bridge) bridge.termResize({ cols: t.term.cols, rows: t.term.rows, ptyId: id });
}

function fitTerminal(id) {
  const t = terminals.get(id);
  if (!t || !t.el.classList.contains('active')) return;
  try { t.fit.fit(); } catch (e) { /* not laid out yet */ }
}

function createTerminal(id) {
  if (terminals.has(id)) { switchTerminal(id); return; }
  const el = document.createElement('div');
  el.className = 'term';
  document.getElementById('terminals').appendChild(el);
  const term = new Terminal({
    allowProposedApi: true,
    scrollback: 10000,
    fontSize: 13,
    fontFamily: '"DejaVu Sans Mono", "Noto Sans Mono CJK SC", monospace',
    cursorBlink: true,
    theme: THEMES[themeName],
    macOptionIsMeta: true,
  });
  const fit = new FitAddon.FitAddon();
  const search = new SearchAddon.SearchAddon();
  term.loadAddon(fit);
  term.loadAddon(search);
  term.loadAddon(new Unicode11Addon.Unicode11Addon());
  term.unicode.activeVersion = '11';
  term.loadAddon(new WebLinksAddon.WebLinksAddon((event, uri) => { if (bridge) bridge.openLink(uri); }));
  const entry = { term, fit, search, el, masked: false, writes: 0, backlog: [], backlogBytes: 0, pumped: 0,
                  renderer: 'dom' };
  terminals.set(id, entry);
  term.open(el);
  skipIdleSelectionRedraws(term);
  loadRenderer(entry);
  term.onData((data) => {
    if (entry.masked || !bridge) return;
    if (echoProbe.on && !echoProbe.sentAt.has(id)) echoProbe.sentAt.set(id, performance.now());
    bridge.termInput({ data: data, ptyId: id });
  });
  term.onBinary((data) => { if (!entry.masked && bridge) bridge.termInput({ data: data, ptyId: id }); });
  term.onResize(() => reportSize(id));
  term.onSelectionChange(() => { if (bridge && term.hasSelection()) bridge.selectionChanged(term.getSelection()); });
  term.attachCustomKeyEventHandler((ev) => handleKey(ev, id));
  switchTerminal(id);
}

function handleKey(ev, id) {
  if (ev.type !== 'keydown') return true;
  const ctrlShift = ev.ctrlKey && ev.shiftKey && !ev.altKey;
  const key = ev.key.toLowerCase();
  if (ctrlShift && key === 'c') {
    const t = terminals.get(id);
    if (t && t.term.hasSelection() && bridge) bridge.copyText(t.term.getSelection());
    return false;
  }
  if ((ctrlShift && key === 'v') || (ev.shiftKey && !ev.ctrlKey && ev.key === 'Insert')) {
    if (bridge) bridge.requestPaste();
    ev.preventDefault();
    return false;
  }
  if (ctrlShift && key === 'f') { openFind(); ev.preventDefault(); return false; }
  return true;
}

function switchTerminal(id) {
  const t = terminals.get(id);
  if (!t) return;
  for (const [other, e] of terminals) e.el.classList.toggle('active', other === id);
  activeId = id;
  drainBacklog(t, id);
  fitTerminal(id);
  schedulePump();
}

function removeTerminal(id) {
  const t = terminals.get(id);
  if (!t) return;
  t.term.dispose();
  t.el.remove();
  terminals.delete(id);
  pendingAcks.delete(id);
  if (activeId === id) activeId = 0;
  pump.inFlight -= t.pumped;  // the callbacks of its pieces may never come
  schedulePump();
}

function writeOutput(b64, id) {
  const t = terminals.get(id);
  if (!t) return;
  if (echoProbe.sentAt.has(id) && !echoProbe.arrivedAt.has(id)) echoProbe.arrivedAt.set(id, performance.now());
  let bytes;
  try { bytes = toBytes(b64); } catch (e) { queueAck(id, decodedLength(b64)); return; }
  stats.received += bytes.length;
  if (t.masked) { queueAck(id, bytes.length); return; }
  // Raw bytes: the terminal's own UTF-8 decoder keeps a character split across chunks whole.
  if (id === activeId) {
    writeNow(t, id, bytes);
  } else {
    t.backlog.push(bytes);
    t.backlogBytes += bytes.length;
    schedulePump();
  }
}

function maskTerminal(id, message) {
  const t = terminals.get(id);
  if (!t) return;
  drainBacklog(t, id);  // what came before the mask is still shown under it
  t.masked = true;
  t.term.options.disableStdin = true;
  let mask = t.el.querySelector('.mask');
  if (!mask) {
    mask = document.createElement('div');
    mask.className = 'mask';
    mask.appendChild(document.createElement('span'));
    t.el.appendChild(mask);
  }
  mask.firstChild.textContent = message;
}

function clearTerminal(id) {
  const t = terminals.get(id);
  if (t) t.term.clear();
}

function resizeTerminal(id) {
  fitTerminal(id);
  reportSize(id);  // reported even when the size did not change
}

function focusTerminal(id) {
  const t = terminals.get(id);
  if (t) t.term.focus();
}

function pasteText(text) {
  const t = terminals.get(activeId);
  if (t && !t.masked) t.term.paste(text);
}

function setTheme(name) {
  themeName = THEMES[name] ? name : 'light';
  document.body.className = themeName;
  for (const [, t] of terminals) t.term.options.theme = THEMES[themeName];
}

// Find in scrollback.
const find = document.getElementById('find');
const findText = document.getElementById('find-text');
function openFind() {
  find.classList.add('open');
  findText.focus();
  findText.select();
}
function closeFind() {
  find.classList.remove('open');
  focusTerminal(activeId);
}
function findStep(backwards) {
  const t = terminals.get(activeId);
  if (!t || !findText.value) return;
  const opts = { decorations: { matchOverviewRuler: '#888', activeMatchColorOverviewRuler: '#0078d4',
                                matchBackground: '#ffd33d55', activeMatchBackground: '#0078d4aa' } };
  const found = backwards ? t.search.findPrevious(findText.value, opts) : t.search.findNext(findText.value, opts);
  findText.classList.toggle('none', !found);
}
findText.addEventListener('keydown', (ev) => {
  if (ev.key === 'Enter') { findStep(ev.shiftKey); ev.preventDefault(); }
  else if (ev.key === 'Escape') { closeFind(); ev.preventDefault(); }
});
findText.addEventListener('input', () => findStep(false));
document.getElementById('find-next').onclick = () => findStep(false);
document.getElementById('find-prev').onclick = () => findStep(true);
document.getElementById('find-close').onclick = closeFind;

// Every size change of the page area refits the active terminal (which reports its new size).
new ResizeObserver(() => fitTerminal(activeId)).observe(document.getElementById('terminals'));

// Test and diagnostics hooks: the text in a terminal's buffer, and which renderer is in use.
function __terminalText(id) {
  const t = terminals.get(id);
  if (!t) return null;
  const buf = t.term.buffer.active;
  const lines = [];
  for (let i = 0; i < buf.length; i++) lines.push(buf.getLine(i).translateToString(true));
  while (lines.length && lines[lines.length - 1] === '') lines.pop();
  return lines.join('\n');
}
function __pageState() {
  const backlog = {}, renderers = {};
  for (const [id, t] of terminals) { backlog[id] = t.backlogBytes; renderers[id] = t.renderer; }
  return { active: activeId, ids: Array.from(terminals.keys()), renderer: renderer, renderers: renderers,
           gl: glName, stats: stats, backlog: backlog,
           visibility: document.visibilityState,
           masked: Array.from(terminals).filter(([, t]) => t.masked).map(([id]) => id) };
}

function __startEchoProbe() {
  echoProbe.on = true;
  echoProbe.sentAt.clear();
  echoProbe.arrivedAt.clear();
  echoProbe.samples = [];
  echoProbe.stages = [];
  return true;
}
function __echoSamples() { return echoProbe.samples; }
function __echoStages() { return echoProbe.stages; }

let glName = '';  // what draws WebGL here ('' without WebGL), for diagnostics
function probeRenderer() {
  try {
    const gl = document.createElement('canvas').getContext('webgl2');
    if (!gl) return 'dom';
    const info = gl.getExtension('WEBGL_debug_renderer_info');
    const name = info ? String(gl.getParameter(info.UNMASKED_RENDERER_WEBGL)) : '';
    glName = name || 'webgl2';
    if (/swiftshader|llvmpipe|softpipe|software/i.test(name)) return 'dom';
    return 'webgl';
  } catch (e) { return 'dom'; }
}
renderer = probeRenderer();

new QWebChannel(qt.webChannelTransport, (channel) => {
  bridge = channel.objects.bridge;
  bridge.termReady();
});
