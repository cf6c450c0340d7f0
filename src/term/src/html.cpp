// SPDX-License-Identifier: Apache-2.0
// One HTML file a lab opens without a network: the pass/fail table with
// filters, then per scenario the exchange drawn as a sequence between
// terminal, kernel, card and issuer, the outcome, TVR, TSI and CVM Results
// bit by bit and the expectations that differ. The data sits in the page as
// JSON; the page's script draws it.
#include <string_view>

#include "velk/term/explain.hpp"
#include "velk/term/outputs.hpp"

namespace velk::term {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kPage = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>velk-term report</title>
<style>
:root { --pass: #1a7f37; --fail: #cf222e; --error: #8250df; --pending: #9a6700;
        --line: #d0d7de; --muted: #57606a; --bg: #f6f8fa; }
* { box-sizing: border-box; }
body { font: 14px/1.45 system-ui, -apple-system, "Segoe UI", sans-serif; margin: 0;
       color: #1f2328; background: #fff; }
header { padding: 16px 24px; border-bottom: 1px solid var(--line); background: var(--bg); }
h1 { font-size: 20px; margin: 0 0 8px; }
h2 { font-size: 16px; margin: 0; display: inline; }
h3 { font-size: 14px; margin: 16px 0 6px; }
main { padding: 16px 24px; }
code, .mono { font-family: ui-monospace, "DejaVu Sans Mono", monospace; font-size: 12px; }
.chips span { display: inline-block; margin-right: 8px; padding: 2px 10px; border-radius: 12px;
              background: #fff; border: 1px solid var(--line); }
.filters { margin: 12px 0; display: flex; gap: 6px; flex-wrap: wrap; align-items: center; }
.filters button { border: 1px solid var(--line); background: #fff; border-radius: 6px;
                  padding: 4px 12px; cursor: pointer; font: inherit; }
.filters button.on { background: #0969da; color: #fff; border-color: #0969da; }
.filters input { padding: 4px 8px; border: 1px solid var(--line); border-radius: 6px;
                 font: inherit; min-width: 240px; }
table { border-collapse: collapse; }
table.results { width: 100%; }
table.results th, table.results td { text-align: left; padding: 5px 10px;
                                     border-bottom: 1px solid var(--line); vertical-align: top; }
table.results th { background: var(--bg); position: sticky; top: 0; }
table.results tr.scenario-row:hover { background: #f3f8ff; cursor: pointer; }
td.num { text-align: right; white-space: nowrap; }
.verdict { font-weight: 600; border-radius: 4px; padding: 1px 6px; color: #fff;
           white-space: nowrap; font-size: 12px; }
.v-PASS { background: var(--pass); } .v-FAIL { background: var(--fail); }
.v-ERROR, .v-CRASH, .v-TIMEOUT { background: var(--error); }
.v-PENDING, .v-UNEXPECTED { background: var(--pending); }
.v-none { background: var(--muted); }
section.scenario { border: 1px solid var(--line); border-radius: 8px; margin: 16px 0; }
section.scenario > details > summary { padding: 10px 14px; background: var(--bg);
                                       cursor: pointer; border-radius: 8px; }
.body { padding: 4px 16px 16px; }
.kv td { padding: 1px 12px 1px 0; vertical-align: top; }
.kv td:first-child { color: var(--muted); white-space: nowrap; }
table.mismatch td, table.mismatch th { border: 1px solid var(--line); padding: 3px 8px; }
table.mismatch td.exp { color: var(--pass); } table.mismatch td.act { color: var(--fail); }
table.bits td, table.bits th { border: 1px solid var(--line); padding: 2px 4px; font-size: 10px;
                                width: 56px; height: 34px; vertical-align: top; color: #8c959f; }
table.bits th { width: auto; background: var(--bg); color: #1f2328; white-space: nowrap; }
table.bits td.set { background: #fff1c2; color: #1f2328; font-weight: 600;
                    border: 2px solid #d4a72c; }
.bitsets { display: flex; gap: 24px; flex-wrap: wrap; }
.seq { position: relative; margin-top: 6px; }
.lanes { display: grid; grid-template-columns: 70px repeat(4, 1fr); position: sticky; top: 0;
         background: #fff; z-index: 2; border-bottom: 1px solid var(--line); }
.lanes div { text-align: center; font-weight: 600; padding: 4px 0; }
.msg { margin: 0; }
.msg > summary { list-style: none; display: grid; grid-template-columns: 70px 1fr;
                 cursor: pointer; }
.msg > summary::-webkit-details-marker { display: none; }
.msg > summary:hover { background: #f3f8ff; }
.t { color: var(--muted); font-size: 11px; text-align: right; padding: 8px 8px 0 0; }
.track { position: relative; height: 36px;
         background: linear-gradient(var(--line), var(--line)) 12.5% 0/1px 100% no-repeat,
                     linear-gradient(var(--line), var(--line)) 37.5% 0/1px 100% no-repeat,
                     linear-gradient(var(--line), var(--line)) 62.5% 0/1px 100% no-repeat,
                     linear-gradient(var(--line), var(--line)) 87.5% 0/1px 100% no-repeat; }
.arrow { position: absolute; top: 24px; height: 0; border-top: 2px solid #57606a; }
.arrow.r::after, .arrow.l::after { content: ""; position: absolute; top: -7px;
                                   border: 6px solid transparent; }
.arrow.r::after { right: -2px; border-left: 9px solid #57606a; border-right: 0; }
.arrow.l::after { left: -2px; border-right: 9px solid #57606a; border-left: 0; }
.arrow.card { border-color: #0969da; } .arrow.card.r::after { border-left-color: #0969da; }
.arrow.card.l::after { border-right-color: #0969da; }
.arrow.issuer { border-color: #8250df; } .arrow.issuer.r::after { border-left-color: #8250df; }
.arrow.issuer.l::after { border-right-color: #8250df; }
.arrow.bad { border-color: var(--fail); border-top-style: dashed; }
.label { position: absolute; top: 3px; white-space: nowrap; overflow: hidden;
         text-overflow: ellipsis; font-size: 12px; text-align: center; }
.note { position: absolute; top: 5px; font-size: 12px; background: #fff8c5;
        border: 1px solid #d4a72c; border-radius: 4px; padding: 1px 6px; white-space: nowrap;
        overflow: hidden; text-overflow: ellipsis; max-width: 60%; }
.note.kernel { background: #ddf4ff; border-color: #54aeff; }
.entry { font-weight: 600; }
.fold { margin: 0 0 8px 70px; padding: 8px 12px; background: var(--bg);
        border-left: 3px solid #0969da; }
ul.tlv { margin: 2px 0; padding-left: 18px; }
ul.tlv li { margin: 1px 0; }
ul.tlv .x { color: var(--muted); }
.muted { color: var(--muted); }
#script-error { background: var(--fail); color: #fff; padding: 8px 24px; }
</style>
</head>
<body>
<script>
window.onerror = function (message, source, line) {
  document.body.setAttribute('data-script-error', String(message));
  var d = document.createElement('div');
  d.id = 'script-error';
  d.textContent = 'Script error: ' + message + ' (line ' + line + ')';
  document.body.insertBefore(d, document.body.firstChild);
};
</script>
<header>
<h1 id="title">velk-term report</h1>
<div class="chips" id="summary"></div>
</header>
<main>
<div class="filters" id="filters"></div>
<table class="results" id="results">
<thead><tr><th>#</th><th>Scenario</th><th>Verdict</th><th>Result</th><th>Time</th></tr></thead>
<tbody></tbody>
</table>
<div id="scenarios"></div>
</main>
<script type="application/json" id="data">@DATA@</script>
<script>
(function () {
'use strict';
var doc = JSON.parse(document.getElementById('data').textContent);
var LANES = { T: 0, K: 1, C: 2, I: 3 };

function esc(s) {
  return String(s === undefined || s === null ? '' : s).replace(/[&<>"']/g, function (c) {
    return { '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;' }[c];
  });
}
function verdictClass(v) { return v ? 'v-' + v.split(' ')[0] : 'v-none'; }
function badge(v) { return '<span class="verdict ' + verdictClass(v) + '">' + esc(v || 'RUN') + '</span>'; }
function secs(s) { s = s || 0; return s < 1 ? (s * 1000).toFixed(1) + ' ms' : s.toFixed(2) + ' s'; }
function group(v) {
  if (v === 'CRASH' || v === 'TIMEOUT') return 'ERROR';
  if (v === 'UNEXPECTED PASS') return 'PENDING';
  return v;
}

function tlv(nodes) {
  if (!nodes) return '';
  if (!Array.isArray(nodes)) {
    return '<div class="muted">' + esc(nodes.error || '') + ' <code>' + esc(nodes.hex || '') + '</code></div>';
  }
  var out = '<ul class="tlv">';
  nodes.forEach(function (n) {
    out += '<li><code>' + esc(n.tag) + '</code> ' + esc(n.name);
    if (n.children) {
      out += tlv(n.children);
    } else {
      out += ': <code>' + esc(n.value) + '</code>';
      if (n.text && n.text !== n.value) out += ' <span class="x">' + esc(n.text) + '</span>';
      if (n.explain) {
        out += '<ul>' + n.explain.map(function (e) { return '<li class="x">' + esc(e) + '</li>'; }).join('') + '</ul>';
      }
    }
    out += '</li>';
  });
  return out + '</ul>';
}

function find(nodes, tag) {
  if (!Array.isArray(nodes)) return null;
  for (var i = 0; i < nodes.length; i++) {
    if (nodes[i].tag === tag) return nodes[i];
    var c = find(nodes[i].children, tag);
    if (c) return c;
  }
  return null;
}

// One row of the sequence: an arrow from lane a to lane b, or a note on a lane.
function row(ms, from, to, label, fold, kind) {
  var track;
  if (to === null) {
    var left = from * 25 + 12.5;
    track = '<div class="note ' + (kind || '') + '" style="left:calc(' + left + '% + 6px)">' + label + '</div>';
  } else {
    var lo = Math.min(from, to), hi = Math.max(from, to);
    var l = lo * 25 + 12.5, w = (hi - lo) * 25;
    track = '<div class="label" style="left:' + l + '%;width:' + w + '%">' + label + '</div>' +
            '<div class="arrow ' + (to > from ? 'r ' : 'l ') + (kind || '') +
            '" style="left:' + l + '%;width:' + w + '%"></div>';
  }
  var summary = '<summary><div class="t">' + (ms === null ? '' : ms.toFixed(1) + ' ms') +
                '</div><div class="track">' + track + '</div></summary>';
  return '<details class="msg">' + summary + (fold ? '<div class="fold">' + fold + '</div>' : '') + '</details>';
}

function apduFold(e) {
  var out = '<div>C-APDU <code>' + esc(e.command) + '</code></div>';
  if (e.command_decoded) out += tlv(e.command_decoded);
  if (e.response) {
    out += '<div>R-APDU <code>' + esc(e.response) + '</code></div>' + tlv(e.decoded);
  }
  return out;
}

function outcomeFold(x) {
  var out = '<table class="kv">';
  out += '<tr><td>Kernel status</td><td>' + esc(x.status_text) + '</td></tr>';
  if (x.error) out += '<tr><td>Error</td><td>' + esc(x.error) + '</td></tr>';
  if (x.outcome) {
    Object.keys(x.outcome).forEach(function (k) {
      out += '<tr><td>' + esc(k) + '</td><td>' + esc(JSON.stringify(x.outcome[k])) + '</td></tr>';
    });
  }
  if (x.ui) out += '<tr><td>message</td><td>' + esc(x.ui.message) + '</td></tr>';
  out += '</table>';
  if (x.output_decoded) out += '<h3>Outcome TLV</h3>' + tlv(x.output_decoded);
  return out;
}

function issuerRows(r) {
  var o = r.online;
  var fold = '<table class="kv"><tr><td>Response code</td><td>' + esc(o.response_code) +
             '</td></tr><tr><td>ARQC</td><td>' + esc(o.arqc) + '</td></tr><tr><td>91</td><td><code>' +
             esc(o.authentication_data) + '</code></td></tr><tr><td>Scripts</td><td><code>' +
             esc(o.scripts) + '</code></td></tr></table>';
  return row(null, LANES.T, LANES.I, 'authorisation request (' + esc(o.flow) + ')', '', 'issuer') +
         row(null, LANES.I, LANES.T, '8A "' + esc(o.response_code) + '", ARQC ' + esc(o.arqc), fold, 'issuer');
}

function sequence(r) {
  var out = '', entry = 0, issuerShown = !r.online;
  var entries = r.entries || [];
  function endEntry() {
    var x = entries[entry - 1];
    if (!x) return;
    out += row(null, LANES.K, LANES.T, '<span class="entry">outcome: ' +
               esc(x.outcome ? x.outcome.status : x.error || 'none') + '</span>', outcomeFold(x));
  }
  (r.trace || []).forEach(function (e) {
    if (e.entry !== entry) {
      endEntry();
      entry = e.entry;
      if (entry >= 2 && !issuerShown) { out += issuerRows(r); issuerShown = true; }
      var x = entries[entry - 1];
      if (x) {
        out += row(e.ms, LANES.T, LANES.K, '<span class="entry">Kernel_Start_VELK_: entry ' + entry +
                   ', ' + esc(x.purpose) + '</span>', '<div>Input</div>' + tlv(x.input_decoded));
      }
    }
    var host = e.entry === 0 ? LANES.T : LANES.K;
    switch (e.type) {
      case 'apdu':
        out += row(e.ms, host, LANES.C, esc(e.name) + ' <code>' + esc(e.command.slice(0, 8)) + '</code>',
                   apduFold(e), 'card');
        if (e.response) {
          out += row(e.response_ms, LANES.C, host, 'SW <code>' + esc(e.response.slice(-4)) + '</code>',
                     apduFold(e), 'card');
        } else {
          out += row(null, LANES.C, host, 'no response', '', 'card bad');
        }
        break;
      case 'callback':
        if (e.command.indexOf('F1 ') === 0) break;  // drawn as its APDU
        out += row(e.ms, LANES.K, LANES.T, esc(e.command), tlv(e.request_decoded));
        out += row(e.reply_ms, LANES.T, LANES.K, e.status ? 'failed, status 0x' + e.status.toString(16).toUpperCase() : 'reply',
                   e.reply_decoded ? tlv(e.reply_decoded) : '<span class="muted">empty</span>',
                   e.status ? 'bad' : '');
        break;
      case 'signal':
        out += row(e.ms, LANES.T, LANES.K, 'signal ' + esc(e.signal), esc(e.why) +
                   (e.data ? ' <code>' + esc(e.data) + '</code>' : ''));
        break;
      case 'display':
        out += row(e.ms, LANES.T, null, 'display: ' + esc(e.ui ? e.ui.message : e.uird), '');
        break;
      case 'note':
        out += row(e.ms, LANES.T, null, esc(e.text), '');
        break;
      case 'power-off':
        out += row(e.ms, LANES.T, null, 'card power-off: ' + esc(e.why), '');
        break;
      case 'kernel':
        out += row(e.ms, LANES.K, null, esc(e.text), '', 'kernel');
        break;
    }
  });
  endEntry();
  if (!issuerShown) out += issuerRows(r);
  return '<div class="seq"><div class="lanes"><div></div><div>Terminal</div><div>Kernel</div>' +
         '<div>Card</div><div>Issuer</div></div>' + out + '</div>';
}

function bitTable(title, hex, names, rows, after) {
  var bytes = [];
  for (var i = 0; i + 1 < (hex || '').length; i += 2) bytes.push(parseInt(hex.substr(i, 2), 16));
  var out = '<div><h3>' + esc(title) + (hex ? ' <code>' + esc(hex) + '</code>' : ' <span class="muted">(not in the data record)</span>') + '</h3><table class="bits">';
  out += '<tr><th></th>' + [8, 7, 6, 5, 4, 3, 2, 1].map(function (b) { return '<th>b' + b + '</th>'; }).join('') + '</tr>';
  for (var n = 0; n < rows; n++) {
    out += '<tr><th>byte ' + (n + 1) + '</th>';
    for (var mask = 0x80; mask; mask >>= 1) {
      var set = bytes.length > n && (bytes[n] & mask);
      var name = (names && names[n + 1] && names[n + 1][mask]) || '';
      out += '<td class="' + (set ? 'set' : '') + '" title="' + esc(name) + '">' + esc(name) + '</td>';
    }
    out += '</tr>';
  }
  return out + '</table>' + (after || '') + '</div>';
}

function bitNames(list) {
  var names = {};
  (list || []).forEach(function (b) { (names[b[0]] = names[b[0]] || {})[b[1]] = b[2]; });
  return names;
}

function scenarioSection(s, i) {
  var r = s.report || {};
  var out = '<section class="scenario" id="s' + i + '"><details' + (s.verdict === 'PASS' ? '' : ' open') + '>' +
            '<summary>' + badge(s.verdict) + ' <h2>' + esc(s.label || s.file || s.name) + '</h2> <span class="muted">' +
            esc(s.file ? s.name : '') + '</span></summary><div class="body">';
  out += '<h3>Outcome</h3><table class="kv"><tr><td>Result</td><td><b>' + esc(s.result || r.result) + '</b></td></tr>';
  (r.entries || []).forEach(function (x) {
    out += '<tr><td>Entry ' + x.number + '</td><td>' + esc(x.purpose) + ': ' +
           esc(x.outcome ? x.outcome.status + ', start ' + x.outcome.start + ', CVM ' + x.outcome.cvm : x.error) +
           (x.ui ? ', "' + esc(x.ui.message) + '"' : '') + '</td></tr>';
  });
  if (r.card) out += '<tr><td>Card</td><td>' + esc(r.card) + '</td></tr>';
  if (r.transaction) out += '<tr><td>Transaction</td><td>' + esc(r.transaction.type + ' ' + r.transaction.amount + ' ' + r.transaction.currency) + '</td></tr>';
  out += '</table>';
  if (r.why && r.why.length) out += '<ul>' + r.why.map(function (w) { return '<li>' + esc(w) + '</li>'; }).join('') + '</ul>';
  if (s.mismatches.length) {
    out += '<h3>Mismatches</h3><table class="mismatch"><tr><th>Field</th><th>Expected</th><th>Actual</th></tr>' +
           s.mismatches.map(function (m) {
             return '<tr><td>' + esc(m.field) + '</td><td class="exp">' + esc(m.expected) + '</td><td class="act">' + esc(m.actual) + '</td></tr>';
           }).join('') + '</table>';
  }
  if (s.details.length) out += '<h3>Details</h3><ul>' + s.details.map(function (d) { return '<li>' + esc(d) + '</li>'; }).join('') + '</ul>';
  var last = (r.entries || []).filter(function (x) { return x.data_record; }).pop();
  if (last) {
    var get = function (tag) { var n = find(last.data_record, tag) || find(last.discretionary_data, tag); return n ? n.value : ''; };
    var cvm = find(last.data_record, '9F34');
    out += '<div class="bitsets">' + bitTable('TVR (95)', get('95'), bitNames(doc.bits.tvr), 5) +
           bitTable('TSI (9B)', get('9B'), bitNames(doc.bits.tsi), 2) +
           bitTable('CVM Results (9F34)', get('9F34'), bitNames(doc.bits.cvm_results), 3,
                    cvm && cvm.explain ? '<ul>' + cvm.explain.map(function (e) { return '<li>' + esc(e) + '</li>'; }).join('') + '</ul>' : '') +
           '</div>';
  }
  if (r.trace) out += '<h3>Exchange</h3>' + sequence(r);
  else if (!r.entries) out += '<p class="muted">No transaction ran.</p>';
  return out + '</div></details></section>';
}

var summary = doc.summary, list = doc.scenarios;
var chips = '';
Object.keys(summary).forEach(function (k) {
  var v = summary[k];
  if (k === 'seconds') v = secs(v);
  if (v !== 0 && v !== false) chips += '<span>' + esc(k.replace(/_/g, ' ')) + ': <b>' + esc(v) + '</b></span>';
});
document.getElementById('summary').innerHTML = chips;

var rows = list.map(function (s, i) {
  return '<tr class="scenario-row" data-verdict="' + esc(group(s.verdict)) + '" data-target="s' + i + '">' +
         '<td class="num">' + (i + 1) + '</td><td><code>' + esc(s.label || s.file) + '</code><div class="muted">' +
         esc(s.name) + '</div></td><td>' + badge(s.verdict) + '</td><td>' + esc(s.result) +
         '</td><td class="num">' + secs(s.seconds) + '</td></tr>';
}).join('');
document.querySelector('#results tbody').innerHTML = rows;
document.getElementById('scenarios').innerHTML = list.map(scenarioSection).join('');

var filter = 'all', text = '';
function apply() {
  document.querySelectorAll('tr.scenario-row').forEach(function (tr, i) {
    var s = list[i];
    var show = (filter === 'all' || tr.getAttribute('data-verdict') === filter) &&
               (!text || (s.file + ' ' + s.name + ' ' + s.result).toLowerCase().indexOf(text) >= 0);
    tr.style.display = show ? '' : 'none';
    document.getElementById('s' + i).style.display = show ? '' : 'none';
  });
}
var filters = ['all', 'PASS', 'FAIL', 'ERROR', 'PENDING'].filter(function (f) {
  return f === 'all' || list.some(function (s) { return group(s.verdict) === f; });
});
var bar = document.getElementById('filters');
bar.innerHTML = list.length > 1 ? filters.map(function (f) {
  var n = f === 'all' ? list.length : list.filter(function (s) { return group(s.verdict) === f; }).length;
  return '<button data-filter="' + f + '"' + (f === 'all' ? ' class="on"' : '') + '>' + f + ' (' + n + ')</button>';
}).join('') + '<input type="search" placeholder="Filter by name or result" id="search">' : '';
bar.addEventListener('click', function (ev) {
  var f = ev.target.getAttribute && ev.target.getAttribute('data-filter');
  if (!f) return;
  filter = f;
  bar.querySelectorAll('button').forEach(function (b) { b.classList.toggle('on', b === ev.target); });
  apply();
});
var search = document.getElementById('search');
if (search) search.addEventListener('input', function () { text = search.value.toLowerCase(); apply(); });
document.querySelector('#results tbody').addEventListener('click', function (ev) {
  var tr = ev.target.closest('tr');
  if (!tr) return;
  var section = document.getElementById(tr.getAttribute('data-target'));
  section.querySelector('details').open = true;
  section.scrollIntoView();
});
var ready = document.createElement('div');
ready.id = 'report-ready';
ready.hidden = true;
document.body.appendChild(ready);
})();
</script>
</body>
</html>
)html";

// The names of a bit-field's bits, from the same words the text report
// uses: [byte, mask, name] for every named bit.
Json BitNames(std::vector<std::string> (*explain)(ByteView), size_t bytes) {
    Json out = Json::array();
    for (size_t i = 0; i < bytes; ++i)
        for (unsigned mask = 0x80; mask != 0; mask >>= 1) {
            std::vector<uint8_t> value(bytes, 0);
            value[i] = static_cast<uint8_t>(mask);
            const auto lines = explain(value);
            if (lines.empty()) continue;
            const std::string &line = lines.front();
            const size_t colon = line.find(": ");
            const std::string name = colon == std::string::npos ? line : line.substr(colon + 2);
            if (name != "reserved") out.push_back({i + 1, mask, name});
        }
    return out;
}

Json Decoded(const Json &hex) {
    try {
        return DecodeJson(velk::host::FromHex(hex.get<std::string>()));
    } catch (const std::exception &) {
        return nullptr;
    }
}

}  // namespace

void WriteHtml(std::ostream &out, const Json &doc) {
    Json data = doc;
    // CVM Results are three codes rather than bits: the bits say which code.
    Json cvm = Json::array({{1, 0x80, "RFU"}, {1, 0x40, "next rule if unsuccessful"}});
    for (unsigned mask = 0x20; mask != 0; mask >>= 1)
        cvm.push_back({1, mask, "CVM code"});
    for (unsigned mask = 0x80; mask != 0; mask >>= 1) {
        cvm.push_back({2, mask, "condition code"});
        cvm.push_back({3, mask, "result code"});
    }
    data["bits"] = {
        {"tvr", BitNames(ExplainTvr, 5)}, {"tsi", BitNames(ExplainTsi, 2)}, {"cvm_results", cvm}};
    // The kernel's input and output of each entry, decoded for the drawing.
    for (Json &s : data["scenarios"])
        if (s["report"].contains("entries"))
            for (Json &e : s["report"]["entries"]) {
                e["input_decoded"] = Decoded(e["input"]);
                e["output_decoded"] = Decoded(e["output"]);
            }
    // Inside a script element no "<" may start a tag: JSON strings carry it
    // as \u003c, which JSON.parse reads back.
    std::string json = data.dump(-1, ' ', true, Json::error_handler_t::replace);
    std::string safe;
    safe.reserve(json.size());
    for (const char c : json)
        safe += c == '<' ? std::string("\\u003c") : std::string(1, c);
    const size_t at = kPage.find("@DATA@");
    out << kPage.substr(0, at) << safe << kPage.substr(at + 6);
}

}  // namespace velk::term
