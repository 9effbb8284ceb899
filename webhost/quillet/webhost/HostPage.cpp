#include "quillet/webhost/HostPage.h"

namespace quillet::webhost {

// Layers, bottom first: a screen with native controls is a rounded card on a half-transparent
// backdrop with its logo and buttons; a sheet is a card rising from the bottom; anything else
// fills the window. Every link activated inside a document is first put to the screen's
// navigation delegate (POST /screen/ID/policy); only an "allow" lets it proceed.
//
// The card grows with its document and never beyond the window: the buttons always stay in
// view and the document scrolls. Only the top visible layer takes focus and input; Tab wraps
// inside it, focus moves into a screen when it opens and back when the one above it closes,
// Escape and the browser's Back close a sheet. A new document of a screen already shown replaces
// the old one's body in place, so the reader keeps the scroll position and the focused control.
const std::string_view kHostPage = R"HTML(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<script src="/tcfapi.js"></script>
<meta name="viewport" content="width=device-width,initial-scale=1">
<title>Quillet</title>
<style>
html,body{margin:0;height:100%;font-family:-apple-system,system-ui,"Segoe UI",Roboto,Arial,sans-serif;
 background:#e9eef3}
#app{padding:24px;color:#3a3a3c}
#app h1{font-size:20px;margin:0 0 6px}
#ad-slot{display:block;border:1px dashed #b0a060;width:min(560px,100%);height:96px;margin-top:16px}
#actions button{font:inherit;font-size:15px;font-weight:600;padding:10px 14px;margin:12px 8px 0 0;
 border-radius:10px;border:1px solid #0040DD;background:#fff;color:#0040DD;cursor:pointer}
#actions button:focus-visible{outline:3px solid #111;outline-offset:2px}
.layer{position:fixed;inset:0;display:flex}
.layer[hidden]{display:none}
.backdrop{background:rgba(0,0,0,.5);align-items:center;justify-content:center;padding:16px}
.card{background:#fff;border-radius:18px;box-shadow:0 10px 40px rgba(0,0,0,.3);width:min(560px,100%);
 max-height:100%;display:flex;flex-direction:column;overflow:hidden}
.card img{flex:none;max-height:48px;max-width:60%;margin:18px auto 0;display:block}
.card iframe{flex:0 1 auto;border:0;width:100%;min-height:48px;height:260px;padding:0 18px;
 box-sizing:border-box}
.buttons{flex:none;display:flex;flex-direction:column;gap:10px;padding:14px 18px 18px}
.buttons button{font:inherit;font-size:17px;padding:13px;border-radius:12px;border:0;cursor:pointer}
.buttons button.filled{color:#fff;font-weight:700}
.buttons button.destructive{background:#fff;border:1px solid currentColor;font-weight:600}
.buttons button.plain{background:transparent;font-weight:600}
.buttons button:focus-visible{outline:3px solid #111;outline-offset:2px}
@media (max-height:560px){
 .backdrop{padding:8px}
 .card img{display:none}
 .card iframe{padding:0 12px}
 .buttons{gap:6px;padding:8px 12px 10px}
 .buttons button{font-size:16px;padding:8px}
}
@media (max-height:560px) and (min-width:540px){
 .buttons{flex-direction:row}
 .buttons button{flex:1 1 0}
}
.full{background:#fff}
.full iframe{border:0;flex:1;width:100%;height:100%}
.sheet{background:rgba(0,0,0,.35);align-items:flex-end}
.sheet iframe{border:0;width:100%;height:92%;border-radius:14px 14px 0 0;background:#fff}
.fade{animation:fade .3s ease}
.rise{animation:rise .3s ease}
@keyframes fade{from{opacity:0}to{opacity:1}}
@keyframes rise{from{transform:translateY(100%)}to{transform:none}}
</style></head>
<body data-top="none">
<div id="app"><h1>Quillet reference host</h1><p id="status">Nothing is presented.</p>
<div id="actions"></div></div>
<div id="layers"></div>
<script>
'use strict';
const layers = new Map();
let openedSeen = null;
let refreshing = Promise.resolve();
let topId = null;          // the top visible layer, the only one that takes input
let pageFocus = null;      // what had focus on the page before the first layer opened
const sheetHistory = [];   // sheets that own a history entry, oldest first
let ownBacks = 0;          // history.back() calls of this page whose popstate is still to come
let actionsShown = '';

async function post(path, body) {
  const response = await fetch(path, {method: 'POST', headers: {'Content-Type': 'application/json'},
                                      body: JSON.stringify(body)});
  return response.ok ? response.json() : {};
}

function focusables(layer) {
  const doc = layer.iframe.contentDocument;
  const inner = doc && doc.body
    ? [...doc.querySelectorAll('a[href],button,[tabindex="0"]')].filter((e) => e.offsetParent !== null)
    : [];
  return inner.concat([...layer.el.querySelectorAll('.buttons button')]);
}

// The focused element of a layer, in its document or among its buttons; null when it has none.
function activeIn(layer) {
  if (document.activeElement === layer.iframe) {
    const inner = layer.iframe.contentDocument?.activeElement;
    return inner && inner !== layer.iframe.contentDocument.body ? inner : null;
  }
  return layer.el.contains(document.activeElement) ? document.activeElement : null;
}

function focusIn(layer, element, options = {}) {
  if (!element) return;
  if (element.ownerDocument !== document) layer.iframe.contentWindow.focus();
  element.focus(options);
}

// Where a layer's focus is remembered while another covers it: an element id or a button action.
function remember(layer) {
  const active = activeIn(layer);
  layer.saved = active && (active.id ? {id: active.id} : active.dataset?.action ? {action: active.dataset.action} : null);
}

function restoreFocus(layer) {
  const saved = layer.saved;
  layer.saved = null;
  const doc = layer.iframe.contentDocument;
  const target = saved && (saved.id ? doc?.getElementById(saved.id)
    : layer.el.querySelector(`.buttons button[data-action="${saved.action}"]`));
  // A screen that opens is read from its start; a control that gets its focus back is shown.
  if (target && (target.offsetParent !== null || target.ownerDocument === document)) focusIn(layer, target);
  else focusIn(layer, focusables(layer)[0], {preventScroll: true});
}

// Tab and Shift-Tab wrap around inside the top layer instead of leaving it.
function trap(layer, event) {
  const list = focusables(layer);
  if (!list.length) { event.preventDefault(); return; }
  const at = list.indexOf(activeIn(layer));
  const last = list.length - 1;
  let target = -1;
  if (at < 0) target = event.shiftKey ? last : 0;
  else if (event.shiftKey && at === 0) target = last;
  else if (!event.shiftKey && at === last) target = 0;
  if (target < 0) return;
  event.preventDefault();
  focusIn(layer, list[target]);
}

// Arrow keys for the screens whose documents do not handle them (the banner's fixed text).
function arrows(layer, event) {
  const list = focusables(layer);
  const at = list.indexOf(activeIn(layer));
  const step = event.key === 'ArrowDown' || event.key === 'ArrowRight' ? 1 : -1;
  const next = list[Math.min(list.length - 1, Math.max(0, at < 0 ? 0 : at + step))];
  if (next) {
    focusIn(layer, next);
    event.preventDefault();
  }
}

function closeSheet(layer) {
  layer.iframe.contentDocument?.getElementById('close')?.click();
}

function onKey(layer, event) {
  if (!layer || layer.id !== topId) return;
  const key = event.key;
  if (key === 'Tab') return trap(layer, event);
  if (key === 'Escape') {
    if (layer.style === 'sheet') { event.preventDefault(); closeSheet(layer); }
    return;
  }
  if (!layer.native) return;  // the library's own documents handle the rest themselves
  const active = activeIn(layer);
  if (key === ' ' && active && active.matches('a[role="button"]')) {
    event.preventDefault();
    active.click();
  } else if (['ArrowDown', 'ArrowUp', 'ArrowLeft', 'ArrowRight'].includes(key)) {
    arrows(layer, event);
  }
}
document.addEventListener('keydown', (event) => onKey(layers.get(topId), event));

window.addEventListener('popstate', () => {
  if (ownBacks > 0) { ownBacks -= 1; return; }
  const layer = layers.get(sheetHistory.pop());
  if (layer) closeSheet(layer);
});

// The banner's fixed document, made to read well: a language, a title, and its unfold links
// tied to the list they show.
function annotate(layer, doc) {
  if (!doc.documentElement.lang) doc.documentElement.lang = 'en';
  if (!doc.title) doc.title = layer.title;
  for (const id of ['qlt-view-all', 'qlt-hide-all']) {
    doc.getElementById(id)?.setAttribute('aria-controls', 'qlt-stacks-all');
  }
}

// A card's document is as tall as its text, and the card no taller than the window.
function fit(layer) {
  const doc = layer.iframe.contentDocument;
  if (!layer.native || !doc || !doc.documentElement) return;
  layer.iframe.style.height = `${Math.ceil(doc.documentElement.getBoundingClientRect().height)}px`;
}

function intercept(layer, doc = layer.iframe.contentDocument) {
  if (!doc || doc.quilletIntercepted) return;
  doc.quilletIntercepted = true;
  doc.addEventListener('click', async (event) => {
    const link = event.target.closest && event.target.closest('a[href]');
    if (!link) return;
    event.preventDefault();
    // How many taps the page has handed on (tests tell a handled tap from a lost one by it).
    document.body.dataset.taps = String(Number(document.body.dataset.taps || 0) + 1);
    const raw = link.getAttribute('href');
    // The banner's unfold links hide themselves: focus goes to the one that takes their place.
    const partner = {'qlt-view-all': 'qlt-hide-all', 'qlt-hide-all': 'qlt-view-all'}[link.id];
    if (partner) setTimeout(() => doc.getElementById(partner)?.focus(), 0);
    const answer = await post(`/screen/${layer.id}/policy`, {url: link.href, linkActivation: true});
    if (answer.policy !== 'allow') return;
    if (raw.startsWith('#')) layer.iframe.contentWindow.location.hash = raw;
    else if (!/^javascript:/i.test(raw)) layer.iframe.contentWindow.location.href = link.href;
  }, true);
  doc.addEventListener('keydown', (event) => onKey(layer, event));
}

// Each document calls this from its head, before any of it can be tapped, so that no tap on a
// document that is still loading is lost.
window.quilletFrameStarted = (frameWindow) => {
  for (const layer of layers.values()) {
    if (layer.iframe.contentWindow === frameWindow) intercept(layer, frameWindow.document);
  }
};

// Runs each time a layer shows a new document, loaded or patched in place.
function shown(layer, version) {
  const doc = layer.iframe.contentDocument;
  if (layer.native) {
    annotate(layer, doc);
    fit(layer);
    if (!layer.resizeObserver) {
      layer.resizeObserver = new layer.iframe.contentWindow.ResizeObserver(() => fit(layer));
      layer.resizeObserver.observe(doc.documentElement);
    }
  }
  layer.shownVersion = version;
  layer.el.dataset.loaded = String(version);
  if (layer.wantsFocus && layer.id === topId) {
    layer.wantsFocus = false;
    restoreFocus(layer);
  }
}

// Replaces the shown document's body by the new version's, keeping scroll and focus; reloads the
// frame when that cannot be done.
async function patch(layer, version) {
  let text;
  try {
    const response = await fetch(`/screen/${layer.id}/document?v=${version}`, {cache: 'no-store'});
    if (!response.ok) return;
    text = await response.text();
  } catch (error) {
    return;
  }
  if (layer.docVersion !== version) return;  // a newer version is on its way
  const doc = layer.iframe.contentDocument;
  if (!doc || !doc.body || !layer.iframe.contentWindow.qltRendered) {
    layer.iframe.src = `/screen/${layer.id}/document?v=${version}`;
    return;
  }
  const fresh = new DOMParser().parseFromString(text, 'text/html');
  for (const script of fresh.querySelectorAll('body script')) script.remove();
  const active = activeIn(layer);
  const activeId = active && active.ownerDocument === doc ? active.id : '';
  const scrolled = doc.scrollingElement.scrollTop;
  doc.body.replaceWith(doc.adoptNode(fresh.body));
  if (fresh.title) doc.title = fresh.title;
  doc.scrollingElement.scrollTop = scrolled;
  // Only the top layer takes focus; one below a sheet keeps its place for later.
  const top = layer.id === topId;
  if (activeId && top) doc.getElementById(activeId)?.focus({preventScroll: true});
  layer.iframe.contentWindow.qltRendered(top);
  shown(layer, version);
}

function makeLayer(screen) {
  const el = document.createElement('div');
  const iframe = document.createElement('iframe');
  iframe.title = screen.title;
  const layer = {id: screen.id, el, iframe, title: screen.title, style: screen.style,
                 docVersion: -1, shownVersion: -1, native: screen.controls.length > 0};
  el.className = 'layer';
  el.dataset.screen = screen.kind;
  el.setAttribute('role', 'dialog');
  el.setAttribute('aria-modal', 'true');
  el.setAttribute('aria-label', screen.title);
  if (screen.animated) el.classList.add(screen.transition === 'crossDissolve' ? 'fade' : 'rise');
  if (layer.native) {
    el.classList.add('backdrop');
    const card = document.createElement('div');
    card.className = 'card';
    const buttons = document.createElement('div');
    buttons.className = 'buttons';
    for (const control of screen.controls) {
      if (control.kind === 'image') {
        const image = document.createElement('img');
        image.alt = '';
        image.src = control.imageUrl;
        image.onerror = () => image.remove();
        card.appendChild(image);
        continue;
      }
      const button = document.createElement('button');
      button.type = 'button';
      button.textContent = control.title;
      button.dataset.action = control.action;
      if (control.kind === 'filledButton') {
        button.className = 'filled';
        button.style.background = control.colour;
      } else {
        button.className = control.kind === 'plainButton' ? 'plain' : 'destructive';
        button.style.color = control.colour;
      }
      button.addEventListener('click', () => post(`/screen/${layer.id}/perform`, {action: control.action}));
      buttons.appendChild(button);
    }
    card.appendChild(iframe);
    card.appendChild(buttons);
    el.appendChild(card);
  } else {
    el.classList.add(screen.style === 'sheet' ? 'sheet' : 'full');
    el.appendChild(iframe);
  }
  iframe.addEventListener('load', () => {
    intercept(layer);
    layer.resizeObserver = null;
    shown(layer, layer.docVersion);
  });
  return layer;
}

function showActions(actions) {
  const text = JSON.stringify(actions);
  if (text === actionsShown) return;
  actionsShown = text;
  const root = document.getElementById('actions');
  root.replaceChildren(...actions.map((action) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.id = `action-${action.id}`;
    button.textContent = action.title;
    button.addEventListener('click', () => post(`/action/${action.id}`, {}));
    return button;
  }));
}

async function refresh() {
  const state = await (await fetch('/state', {cache: 'no-store'})).json();
  if (openedSeen === null) openedSeen = state.openedUpTo;
  for (const opened of state.opened) {
    if (opened.seq > openedSeen) {
      openedSeen = opened.seq;
      window.open(opened.url, '_blank', 'noopener');
    }
  }
  showActions(state.actions);
  if (state.adSlot && !document.getElementById('ad-slot')) {
    const slot = document.createElement('iframe');
    slot.id = 'ad-slot';
    slot.title = 'Ad slot';
    slot.src = '/ad-slot';
    document.getElementById('app').appendChild(slot);
  }
  const present = new Set(state.screens.map((s) => s.id));
  for (const [id, layer] of layers) {
    if (present.has(id)) continue;
    layer.el.remove();
    layers.delete(id);
    const at = sheetHistory.indexOf(id);
    if (at >= 0) {
      sheetHistory.splice(at, 1);
      ownBacks += 1;
      history.back();
    }
  }
  const root = document.getElementById('layers');
  state.screens.forEach((screen, index) => {
    let layer = layers.get(screen.id);
    if (!layer) {
      layer = makeLayer(screen);
      layers.set(screen.id, layer);
      root.appendChild(layer.el);
      if (screen.style === 'sheet') {
        history.pushState({quilletSheet: screen.id}, '');
        sheetHistory.push(screen.id);
      }
    }
    layer.el.style.zIndex = String(index + 1);
    layer.el.hidden = screen.hidden;
    if (layer.docVersion !== screen.docVersion) {
      layer.docVersion = screen.docVersion;
      layer.el.dataset.version = String(screen.docVersion);
      if (layer.shownVersion < 0) layer.iframe.src = `/screen/${screen.id}/document?v=${screen.docVersion}`;
      else patch(layer, screen.docVersion);
    }
  });
  const visible = state.screens.filter((s) => !s.hidden);
  const top = visible.length ? visible.at(-1).id : null;
  const changedTop = top !== topId;
  if (changedTop) {
    const previous = layers.get(topId);
    if (topId === null) pageFocus = document.activeElement !== document.body ? document.activeElement : null;
    else if (previous && top !== null) remember(previous);
    topId = top;
  }
  // Only the top layer can hold focus; it must be so before focus moves into it.
  for (const [id, layer] of layers) layer.el.inert = id !== topId;
  document.getElementById('app').inert = topId !== null;
  if (changedTop) {
    const layer = layers.get(top);
    if (layer) {
      layer.wantsFocus = true;
      if (layer.shownVersion >= 0) shown(layer, layer.shownVersion);
    } else if (pageFocus && pageFocus.isConnected) {
      pageFocus.focus();
    }
  }
  document.body.dataset.top = visible.length ? visible.at(-1).kind : 'none';
  document.getElementById('status').textContent =
    visible.length ? `Showing: ${visible.at(-1).title}` : 'Nothing is presented.';
}

function schedule() { refreshing = refreshing.then(refresh).catch(() => {}); }
const events = new EventSource('/events');
events.onmessage = schedule;
schedule();
</script>
</body></html>
)HTML";

}  // namespace quillet::webhost
