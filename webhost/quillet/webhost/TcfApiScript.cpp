#include "quillet/webhost/TcfApiScript.h"

namespace quillet::webhost {

// The host answers GET /tcfapi/state with {"ping": PingReturn, "tcData": TCData or null} and
// announces each change on /events. Until the first answer the API is a stub: ping says so, and
// listeners and getTCData wait for it. A listener is called at once with the data it may have and
// its new listenerId, then whenever the event status, the string or the CMP's status changes.
// Frames without the function reach it through postMessage and the frame named
// "__tcfapiLocator".
const std::string_view kTcfApiScript = R"JS((function () {
  'use strict';
  if (typeof window.__tcfapi === 'function' && window.__tcfapi.fromQuillet) return;
  let state = null;                 // the host's last answer
  let shown = '';                   // what listeners last heard
  let nextListenerId = 1;
  const listeners = new Map();      // listenerId -> callback
  const waiting = [];               // calls that wait for the first answer

  const validVersion = (version) => version === 2 || version === 0 || version === undefined || version === null;
  const call = (callback, value, success) => { try { callback(value, success); } catch (e) { setTimeout(() => { throw e; }); } };
  function tcData(listenerId, vendorIds) {
    if (!state || !state.tcData) return null;
    const data = JSON.parse(JSON.stringify(state.tcData));
    data.listenerId = listenerId ?? null;
    if (Array.isArray(vendorIds)) {
      for (const map of [data.vendor.consents, data.vendor.legitimateInterests]) {
        for (const id of Object.keys(map)) if (!vendorIds.includes(Number(id))) delete map[id];
      }
    }
    return data;
  }
  function answerListener(listenerId) {
    const data = tcData(listenerId);
    call(listeners.get(listenerId), data, data !== null);
  }
  function ping() {
    return state ? state.ping : { gdprApplies: undefined, cmpLoaded: false, cmpStatus: 'stub',
      displayStatus: 'hidden', apiVersion: '2.2', cmpVersion: undefined, cmpId: undefined,
      gvlVersion: undefined, tcfPolicyVersion: undefined };
  }

  const commands = {
    ping(callback) { call(callback, ping(), true); },
    addEventListener(callback) {
      const listenerId = nextListenerId++;
      listeners.set(listenerId, callback);
      if (state) answerListener(listenerId); else waiting.push(() => answerListener(listenerId));
    },
    removeEventListener(callback, listenerId) {
      call(callback, listeners.delete(listenerId), true);
    },
    getTCData(callback, vendorIds) {
      const answer = () => { const data = tcData(undefined, vendorIds); call(callback, data, data !== null); };
      if (state) answer(); else waiting.push(answer);
    },
  };

  function tcfapi(command, version, callback, parameter) {
    if (typeof callback !== 'function') return;
    if (!validVersion(version)) { call(callback, null, false); return; }
    const run = Object.hasOwn(commands, command) ? commands[command] : null;
    if (!run) { call(callback, null, false); return; }
    run(callback, parameter);
  }
  tcfapi.fromQuillet = true;
  window.__tcfapi = tcfapi;

  async function refresh() {
    try {
      const response = await fetch('/tcfapi/state', { cache: 'no-store' });
      if (!response.ok) return;
      state = await response.json();
    } catch { return; }
    for (const run of waiting.splice(0)) run();
    const data = state.tcData;
    const now = `${state.ping.cmpStatus}|${data ? data.eventStatus : ''}|${data ? data.tcString : ''}`;
    if (now === shown) return;
    shown = now;
    for (const listenerId of [...listeners.keys()]) answerListener(listenerId);
  }
  let refreshing = Promise.resolve();
  const schedule = () => { refreshing = refreshing.then(refresh); };
  new EventSource('/events').onmessage = schedule;
  schedule();

  // Frames ask through postMessage; the locator frame tells them where to.
  window.addEventListener('message', (event) => {
    let message = event.data;
    if (typeof message === 'string') { try { message = JSON.parse(message); } catch { return; } }
    const request = message && message.__tcfapiCall;
    if (!request || !event.source) return;
    tcfapi(request.command, request.version, (returnValue, success) => {
      event.source.postMessage({ __tcfapiReturn: { returnValue, success, callId: request.callId } }, '*');
    }, request.parameter);
  });
  function addLocator() {
    if (window.frames.__tcfapiLocator) return;
    if (!document.body) { setTimeout(addLocator, 5); return; }
    const frame = document.createElement('iframe');
    frame.name = '__tcfapiLocator';
    frame.style.display = 'none';
    frame.title = '';
    document.body.appendChild(frame);
  }
  addLocator();
})();
)JS";

// Finds the locator frame up the frame tree, registers a listener through postMessage, and shows
// every answer: the event status, the vendors with consent, and how many answers came.
const std::string_view kAdSlotPage = R"HTML(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>Ad slot</title>
<style>body{margin:0;font:13px system-ui,sans-serif;background:#fffbe6;color:#333;padding:8px}</style>
</head><body>
<strong>Ad slot</strong> (reads consent through postMessage)
<div>event: <span id="event-status">none</span>; answers: <span id="answers">0</span></div>
<div>vendors with consent: <span id="vendor-consents"></span></div>
<script>
'use strict';
let target = null;
for (let w = window; ; w = w.parent) {
  try { if (w.frames.__tcfapiLocator) { target = w; break; } } catch {}
  if (w === w.top) break;
}
let answers = 0;
window.addEventListener('message', (event) => {
  const reply = event.data && event.data.__tcfapiReturn;
  if (!reply || reply.callId !== 'listener') return;
  answers += 1;
  document.getElementById('answers').textContent = String(answers);
  const data = reply.returnValue;
  document.getElementById('event-status').textContent = reply.success && data ? data.eventStatus : 'no data';
  const consents = data && data.vendor ? data.vendor.consents : {};
  document.getElementById('vendor-consents').textContent =
    Object.keys(consents).filter((id) => consents[id]).join(',');
});
if (target) {
  target.postMessage({ __tcfapiCall: { command: 'addEventListener', version: 2, callId: 'listener' } }, '*');
} else {
  document.getElementById('event-status').textContent = 'no CMP';
}
</script></body></html>
)HTML";

}  // namespace quillet::webhost
