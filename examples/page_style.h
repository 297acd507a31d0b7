// How the page looks, and what it does under a cursor. Fit for HTML and XML alike: without "<" and
// "&".
#pragma once

// clang-format off
inline constexpr char kPageStyle[] = R"(
:root{color-scheme:light dark;--back:#f3f5f8;--card:#fff;--text:#1b2026;--soft:#59636e;--rule:#dfe4ea;
--line:#0a66c2;--warning:#a85100;--critical:#bf1f2b;
--b0:#c9d1da;--b1:#7fc4b4;--b2:#e6c34a;--b3:#e68a3c;--b4:#cf3d3d}
@media (prefers-color-scheme:dark){:root{--back:#111418;--card:#1b2026;--text:#e5e9ee;--soft:#9ca7b3;
--rule:#343c46;--line:#5cabff;--warning:#ffac5c;--critical:#ff7b81;
--b0:#4a545f;--b1:#3d9584;--b2:#c4a234;--b3:#d97a2f;--b4:#e05252}}
*{box-sizing:border-box}
body{margin:0;background:var(--back);color:var(--text);
font:14px/1.55 system-ui,-apple-system,"PingFang SC","Noto Sans CJK SC","Microsoft YaHei",sans-serif}
main{max-width:1240px;margin:auto;padding:12px}
h1{font-size:22px;margin:8px 4px 0}h2{font-size:16px;margin:0 0 8px}h3{font-size:14px;margin:14px 0 4px}
p{margin:4px 0}small,.soft{color:var(--soft);font-size:12px}
section{background:var(--card);border-radius:10px;padding:14px 16px;margin:12px 0}
.tiles,.cards{display:grid;gap:10px;grid-template-columns:repeat(auto-fill,minmax(150px,1fr))}
.cards{grid-template-columns:repeat(auto-fill,minmax(270px,1fr));gap:14px}
.tile b{display:block;font-size:20px;line-height:1.3}
.pair{display:grid;grid-template-columns:2fr 1fr;gap:4px 18px;margin-bottom:10px}
figure{margin:0;min-width:0}figcaption{display:flex;gap:8px;align-items:baseline}
figcaption b{margin-left:auto;white-space:nowrap}
.name{unicode-bidi:isolate;overflow-wrap:anywhere}
.plot{position:relative;height:130px;margin:8px 20px 24px 46px;touch-action:pan-y}
.cards .plot{height:64px}.plot.strip{height:18px}
.plot svg{position:absolute;inset:0;width:100%;height:100%;overflow:visible}
path{fill:none;vector-effect:non-scaling-stroke;stroke-linecap:round;stroke-linejoin:round}
.rule{stroke:var(--rule)}.line{stroke:var(--line);stroke-width:1.6}
.band{fill:var(--line);stroke:var(--line);fill-opacity:.2;stroke-opacity:.2}
.b0{fill:var(--b0)}.b1{fill:var(--b1)}.b2{fill:var(--b2)}.b3{fill:var(--b3)}.b4{fill:var(--b4)}
.key{margin-right:14px;white-space:nowrap}.key i{display:inline-block;width:12px;height:12px;
border-radius:3px;margin-right:5px;vertical-align:-1px}
i.b0{background:var(--b0)}i.b1{background:var(--b1)}i.b2{background:var(--b2)}i.b3{background:var(--b3)}
i.b4{background:var(--b4)}
.x,.y{position:absolute;font-size:11px;line-height:1;color:var(--soft);white-space:nowrap;pointer-events:none}
.y{right:100%;margin-right:7px;transform:translateY(50%)}.x{top:100%;margin-top:6px;transform:translateX(-50%)}
.cursor{position:absolute;top:0;bottom:0;width:1px;background:var(--text);opacity:.5;pointer-events:none}
#tip{position:fixed;display:none;pointer-events:none;z-index:1;padding:6px 9px;border-radius:6px;
background:var(--text);color:var(--card);font-size:12px;white-space:pre-line;max-width:280px}
.wide{overflow-x:auto}table{border-collapse:collapse;width:100%}
th,td{text-align:right;padding:4px 10px;border-bottom:1px solid var(--rule);white-space:nowrap;vertical-align:top}
th{color:var(--soft);font-weight:500}
th:first-child,td:first-child,.texts td,.texts th{text-align:left}th:first-child,td:first-child{padding-left:0}
summary{cursor:pointer}section>details>summary{margin:10px 0 6px;font-weight:600}.texts td:last-child{white-space:normal;overflow-wrap:anywhere}td.name{white-space:normal;min-width:180px}
.warning{color:var(--warning)}.critical{color:var(--critical)}
ul{list-style:none;margin:0;padding:0}li{padding:5px 0;border-bottom:1px solid var(--rule)}li:last-child{border:0}
@media (max-width:760px){.pair{grid-template-columns:1fr}section{padding:12px}
.pair .x:nth-of-type(even),section>.plot .x:nth-of-type(even){display:none}}
)";

// The bucket under the cursor: the last hit that begins left of it. A hit is "place|time|figures".
inline constexpr char kPageScript[] = R"(
'use strict';
const tip = document.getElementById('tip'), cursor = document.createElement('i');
cursor.className = 'cursor';
function show(event) {
  const plot = event.target.closest ? event.target.closest('.plot') : null;
  const box = plot ? plot.getBoundingClientRect() : null;
  const at = plot ? (event.clientX - box.left) / box.width * 1000 : 0;
  const hits = plot ? plot.dataset.hits.split(';').slice(0, -1).map(hit => hit.split('|')) : [];
  const [, time, ...figures] = hits.filter(hit => at >= Number(hit[0])).pop() || [];
  tip.style.display = time ? 'block' : 'none';
  cursor.remove();
  if (!time) return;
  const names = plot.dataset.names.split('|');
  tip.textContent = [time, ...figures.flatMap((figure, i) =>
    figure === '' ? [] : [names[i] + ' ' + figure + plot.dataset.unit])].join('\n');
  cursor.style.left = at / 10 + '%';
  plot.append(cursor);
  const space = innerWidth - tip.offsetWidth - 8;
  tip.style.left = Math.max(8, Math.min(space, event.clientX + 14)) + 'px';
  tip.style.top = Math.max(8, event.clientY - tip.offsetHeight - 12) + 'px';
}
for (const kind of ['pointermove', 'pointerdown']) document.addEventListener(kind, show);
document.addEventListener('scroll', () => { tip.style.display = 'none'; cursor.remove(); });
)";
// Of the script: no other runs, whatever else were to be wrong with the page.
inline constexpr char kPageScriptHash[] = "sha256-qS7EJbmJf9atHsyLy75V5YgyAKSIjiOV61hG9XF7Ac4=";
// clang-format on
