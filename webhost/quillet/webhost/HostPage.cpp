#include "quillet/webhost/HostPage.h"

namespace quillet::webhost {

// Layers, bottom first: a screen with native controls is a rounded card on a half-transparent
// backdrop with its logo and buttons; a sheet is a card rising from the bottom; anything else
// fills the window. Every link activated inside a document is first put to the screen's
// navigation delegate (POST /screen/ID/policy); only an "allow" lets it proceed.
const std::string_view kHostPage = R"HTML(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width,initial-scale=1">
<title>Quillet</title>
<style>
html,body{margin:0;height:100%;font-family:-apple-system,system-ui,"Segoe UI",Roboto,Arial,sans-serif;
 background:#e9eef3}
#app{padding:24px;color:#3a3a3c}
#app h1{font-size:20px;margin:0 0 6px}
.layer{position:fixed;inset:0;display:flex}
.layer[hidden]{display:none}
.backdrop{background:rgba(0,0,0,.5);align-items:center;justify-content:center;padding:16px}
.card{background:#fff;border-radius:18px;box-shadow:0 10px 40px rgba(0,0,0,.3);width:min(560px,100%);
 max-height:calc(100% - 32px);display:flex;flex-direction:column;overflow:hidden}
.card img{max-height:48px;max-width:60%;margin:18px auto 0;display:block}
.card iframe{border:0;flex:1;min-height:260px;padding:0 18px}
.buttons{display:flex;flex-direction:column;gap:10px;padding:14px 18px 18px}
.buttons button{font:inherit;font-size:17px;padding:13px;border-radius:12px;border:0;cursor:pointer}
.buttons button.filled{color:#fff;font-weight:700}
.buttons button.destructive{background:#fff;color:#FF3B30;border:1px solid #FF3B30;font-weight:600}
.buttons button.plain{background:transparent;font-weight:600}
.buttons button:focus-visible{outline:3px solid #111;outline-offset:2px}
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
<div id="app"><h1>Quillet reference host</h1><p id="status">Nothing is presented.</p></div>
<div id="layers"></div>
<script>
'use strict';
const layers = new Map();
let openedSeen = null;
let refreshing = Promise.resolve();

async function post(path, body) {
  const response = await fetch(path, {method: 'POST', headers: {'Content-Type': 'application/json'},
                                      body: JSON.stringify(body)});
  return response.ok ? response.json() : {};
}

function focusables(layer) {
  const inner = layer.iframe.contentDocument
    ? [...layer.iframe.contentDocument.querySelectorAll('a[href],button,[tabindex="0"]')]
        .filter((e) => e.offsetParent !== null)
    : [];
  return inner.concat([...layer.el.querySelectorAll('.buttons button')]);
}

// Arrow keys for the screens whose documents do not handle them (the banner's fixed text).
function arrows(layer, event) {
  if (!['ArrowDown', 'ArrowUp', 'ArrowLeft', 'ArrowRight'].includes(event.key)) return;
  const list = focusables(layer);
  const active = layer.iframe.contentDocument?.activeElement !== layer.iframe.contentDocument?.body
    && document.activeElement === layer.iframe
    ? layer.iframe.contentDocument.activeElement : document.activeElement;
  const at = list.indexOf(active);
  const step = event.key === 'ArrowDown' || event.key === 'ArrowRight' ? 1 : -1;
  const next = list[Math.min(list.length - 1, Math.max(0, at < 0 ? 0 : at + step))];
  if (next) {
    if (next.ownerDocument !== document) layer.iframe.contentWindow.focus();
    next.focus();
    event.preventDefault();
  }
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
    const answer = await post(`/screen/${layer.id}/policy`, {url: link.href, linkActivation: true});
    if (answer.policy !== 'allow') return;
    if (raw.startsWith('#')) layer.iframe.contentWindow.location.hash = raw;
    else if (!/^javascript:/i.test(raw)) layer.iframe.contentWindow.location.href = link.href;
  }, true);
  if (layer.native) doc.addEventListener('keydown', (event) => arrows(layer, event));
}

// Each document calls this from its head, before any of it can be tapped, so that no tap on a
// document that is still loading is lost.
window.quilletFrameStarted = (frameWindow) => {
  for (const layer of layers.values()) {
    if (layer.iframe.contentWindow === frameWindow) intercept(layer, frameWindow.document);
  }
};

function makeLayer(screen) {
  const el = document.createElement('div');
  const iframe = document.createElement('iframe');
  iframe.title = screen.title;
  const layer = {id: screen.id, el, iframe, docVersion: -1, native: screen.controls.length > 0};
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
      } else if (control.kind === 'plainButton') {
        button.className = 'plain';
        button.style.color = control.colour;
      } else {
        button.className = 'destructive';
      }
      button.addEventListener('click', () => post(`/screen/${layer.id}/perform`, {action: control.action}));
      buttons.appendChild(button);
    }
    card.appendChild(iframe);
    card.appendChild(buttons);
    el.appendChild(card);
    el.addEventListener('keydown', (event) => arrows(layer, event));
  } else {
    el.classList.add(screen.style === 'sheet' ? 'sheet' : 'full');
    el.appendChild(iframe);
  }
  iframe.addEventListener('load', () => {
    intercept(layer);
    if (layer.refocus) {
      layer.refocus = false;
      iframe.contentWindow.focus();
      const id = iframe.contentDocument?.body?.dataset.focus;
      const target = id && iframe.contentDocument.getElementById(id);
      if (target) target.focus();
    }
    el.dataset.loaded = String(layer.docVersion);
  });
  return layer;
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
  const present = new Set(state.screens.map((s) => s.id));
  for (const [id, layer] of layers) {
    if (!present.has(id)) { layer.el.remove(); layers.delete(id); }
  }
  const root = document.getElementById('layers');
  state.screens.forEach((screen, index) => {
    let layer = layers.get(screen.id);
    if (!layer) {
      layer = makeLayer(screen);
      layers.set(screen.id, layer);
      root.appendChild(layer.el);
    }
    layer.el.style.zIndex = String(index + 1);
    layer.el.hidden = screen.hidden;
    if (layer.docVersion !== screen.docVersion) {
      layer.refocus = document.activeElement === layer.iframe;
      layer.docVersion = screen.docVersion;
      layer.el.dataset.version = String(screen.docVersion);
      layer.iframe.src = `/screen/${screen.id}/document?v=${screen.docVersion}`;
    }
  });
  const visible = state.screens.filter((s) => !s.hidden);
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
