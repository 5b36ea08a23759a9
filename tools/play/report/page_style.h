// SPDX-License-Identifier: MIT
#pragma once

namespace play
{

/// The page's looks: light, dark, narrow, printed.
constexpr const char* kPageStyle = R"css(
:root {
  color-scheme: light dark;
  --paper: #ffffff; --panel: #f5f7f9; --ink: #1c2126; --quiet: #59636e; --rule: #d5dbe1; --grid: #e3e8ed;
  --good: #12703a; --good-paper: #dcf3e4; --bad: #b3261e; --bad-paper: #fbe3e1;
  --band-good: #d9f0e0; --band-fair: #edf7e4; --band-poor: #fdf0cf; --band-bad: #fbe3e1;
  --blue: #1f63c4; --violet: #7a3fb8; --teal: #0b7a75; --orange: #b35900;
  --blue-1: #a9c8f2; --blue-2: #cfe0f8; --teal-1: #9ed8d2; --teal-2: #c8eae6; --flash: #ffd24a; --flash-ink: #3a2c00;
}
@media (prefers-color-scheme: dark) {
  :root {
    --paper: #14181d; --panel: #1c2229; --ink: #e4e9ee; --quiet: #9aa6b2; --rule: #363f49; --grid: #29313a;
    --good: #5bd18a; --good-paper: #15371f; --bad: #ff8a80; --bad-paper: #47191a;
    --band-good: #17402a; --band-fair: #213a22; --band-poor: #3f3515; --band-bad: #431e1f;
    --blue: #74aaf7; --violet: #c79bf2; --teal: #4fc7bf; --orange: #f2a04e;
    --blue-1: #2f588f; --blue-2: #233f66; --teal-1: #1e6661; --teal-2: #174a47; --flash: #ffd24a; --flash-ink: #3a2c00;
  }
}
@media print {
  :root {
    color-scheme: light;
    --paper: #ffffff; --panel: #f5f7f9; --ink: #1c2126; --quiet: #59636e; --rule: #d5dbe1; --grid: #e3e8ed;
    --good: #12703a; --good-paper: #dcf3e4; --bad: #b3261e; --bad-paper: #fbe3e1;
    --band-good: #d9f0e0; --band-fair: #edf7e4; --band-poor: #fdf0cf; --band-bad: #fbe3e1;
    --blue: #1f63c4; --violet: #7a3fb8; --teal: #0b7a75; --orange: #b35900;
    --blue-1: #a9c8f2; --blue-2: #cfe0f8; --teal-1: #9ed8d2; --teal-2: #c8eae6;
  }
}
* { box-sizing: border-box; }
html { -webkit-text-size-adjust: 100%; print-color-adjust: exact; -webkit-print-color-adjust: exact; }
body { margin: 0 auto; max-width: 66rem; padding: 1.5rem 1.5rem 3rem; background: var(--paper); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "Liberation Sans", Arial, sans-serif; }
h1, h2, h3 { line-height: 1.25; margin: 0; }
h1 { font-size: 1.5rem; overflow-wrap: anywhere; }
h2 { font-size: 1.15rem; margin: 0 0 .75rem; }
h3 { font-size: 1rem; }
p { margin: .35rem 0; max-width: 46rem; }
section { margin-top: 2.25rem; }
.quiet, figcaption, .unit { color: var(--quiet); }
header { display: flex; gap: 1.1rem; align-items: flex-start; }
header p { margin: .2rem 0 0; }
.verdict { flex: none; font-size: 1.35rem; font-weight: 700; letter-spacing: .04em; padding: .3rem .9rem;
  border-radius: .5rem; border: 2px solid; }
.pass { color: var(--good); background: var(--good-paper); }
.fail { color: var(--bad); background: var(--bad-paper); }
.late { color: var(--ink); background: var(--band-poor); }
.tiles { display: grid; grid-template-columns: repeat(3, minmax(0, 1fr)); gap: .75rem;
  margin: 1.5rem 0 0; padding: 0; }
.tiles > div { background: var(--panel); border: 1px solid var(--rule); border-radius: .5rem; padding: .65rem .85rem; }
.tiles dt { color: var(--quiet); font-size: .85rem; }
.tiles dd { margin: 0; font-variant-numeric: tabular-nums; }
.tiles .big { font-size: 1.45rem; font-weight: 600; line-height: 1.35; white-space: nowrap; }
.tiles .big small { font-size: .9rem; font-weight: 400; }
.tiles .more { font-size: .85rem; color: var(--quiet); }
.pair { display: grid; grid-template-columns: repeat(auto-fit, minmax(19rem, 1fr)); gap: 2.25rem 2.5rem; }
.pair > section { min-width: 0; margin-top: 0; }
.tiles + .pair { margin-top: 2.25rem; }
.missed td { font-weight: 600; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th, td { text-align: left; padding: .28rem .75rem .28rem 0; border-bottom: 1px solid var(--grid); vertical-align: top;
  overflow-wrap: anywhere; }
thead th { color: var(--quiet); font-weight: 500; font-size: .85rem; }
tbody th { font-weight: 400; color: var(--quiet); width: 42%; }
.figures tbody th { width: 70%; }
h3 + table { margin-top: .35rem; }
td.number, th.number { text-align: right; }
.limits td:first-child { width: 4.2rem; }
.mark { display: inline-block; min-width: 3.1rem; text-align: center; font-weight: 600; font-size: .8rem;
  border-radius: .3rem; padding: .05rem .4rem; }
figure { margin: 0 0 1.5rem; break-inside: avoid; }
figure h3 { margin-bottom: .15rem; }
figcaption { font-size: .88rem; margin-bottom: .5rem; max-width: 50rem; }
figcaption data, p data { color: var(--ink); font-variant-numeric: tabular-nums; }
.keys { display: flex; flex-wrap: wrap; gap: .2rem 1.1rem; list-style: none; margin: .35rem 0 .5rem; padding: 0;
  font-size: .85rem; }
.keys i { display: inline-block; width: .95rem; height: .7rem; border-radius: 2px; margin-right: .4rem;
  border: 1px solid var(--rule); }
.plot { display: grid; grid-template-columns: 44px minmax(0, 1fr); padding-right: 12px; }
.wide { overflow-x: auto; padding: 0 12px 2px; border: 1px solid var(--rule); border-radius: .5rem; }
.wide:focus-visible { outline: 2px solid var(--blue); }
.wide .area { min-width: 900px; margin-top: 6px; }
.shapes { position: absolute; }
svg { display: block; overflow: visible; }
svg svg { overflow: hidden; }
svg text { font-size: 12px; fill: var(--ink); font-variant-numeric: tabular-nums; }
svg text.middle { text-anchor: middle; } svg text.end { text-anchor: end; }
svg .unit, svg text.middle, .beside text { fill: var(--quiet); }
svg text.name, svg .name { font-weight: 600; }
svg text.in { font-size: 10.5px; fill: var(--ink); pointer-events: none; } svg text.on-flash { fill: var(--flash-ink); }
.grid { stroke: var(--grid); } .axis { stroke: var(--quiet); }
.r37 { fill: var(--band-good); background: var(--band-good); }
.detectable { fill: var(--band-fair); background: var(--band-fair); }
.acceptable { fill: var(--band-poor); background: var(--band-poor); }
.unacceptable { fill: var(--band-bad); background: var(--band-bad); }
line.limit { stroke: var(--good); stroke-dasharray: 5 4; } text.limit { fill: var(--good); }
line.second { stroke: var(--quiet); stroke-dasharray: 2 4; } text.second { fill: var(--quiet); }
circle.inside, use.inside { fill: var(--blue); stroke: var(--paper); }
circle.outside, use.outside { fill: var(--bad); stroke: var(--paper); }
path.queue, line.queue { stroke: var(--teal); } path.clock, line.clock { stroke: var(--violet); }
path.queue, path.clock { stroke-width: 1.6; stroke-linejoin: round; vector-effect: non-scaling-stroke;
  fill-opacity: .25; }
path.queue { fill: none; } path.clock { fill: none; }
circle.queue { fill: var(--teal); } circle.clock { fill: var(--violet); }
line.moment { stroke: var(--orange); stroke-dasharray: 4 3; }
line.broke { stroke: var(--bad); stroke-width: 1.5; }
.panel { fill: var(--panel); }
line.vblank { stroke: var(--quiet); stroke-width: 1.5; }
line.flip { stroke: var(--blue); stroke-width: 2.5; }
.skipped { stroke: var(--bad); stroke-width: 2; }
rect.even { fill: var(--blue-1); } rect.odd { fill: var(--blue-2); } rect.flash { fill: var(--flash); }
rect.block-even { fill: var(--teal-1); } rect.block-odd { fill: var(--teal-2); }
line.meeting { stroke: var(--quiet); stroke-width: 2; } .seen { fill: var(--orange); } .heard { fill: var(--violet); }
.bars { display: grid; grid-template-columns: max-content minmax(0, 1fr); gap: .3rem .75rem; align-items: center;
  font-size: .9rem; font-variant-numeric: tabular-nums; margin: 0; }
.bars dt { color: var(--quiet); text-align: right; }
.bars dd { margin: 0; white-space: nowrap; display: flex; align-items: center; gap: .5rem; min-width: 0; }
.bars i { flex: none; height: 1.05rem; min-width: 2px; border-radius: 2px; background: var(--blue); }
.bars .odd-one i { background: var(--bad); }
details { margin-top: .5rem; } summary { cursor: pointer; color: var(--quiet); }
details table { margin-top: .5rem; max-width: 44rem; }
footer { margin-top: 2.5rem; border-top: 1px solid var(--rule); padding-top: .75rem; color: var(--quiet);
  font-size: .85rem; }
@media (max-width: 600px) {
  body { padding: 1rem 1rem 2rem; }
  header { flex-direction: column; gap: .6rem; }
  .tiles { grid-template-columns: repeat(2, minmax(0, 1fr)); }
  .tiles .big { white-space: normal; font-size: 1.25rem; }
  svg text.minor { display: none; }
  .plot { padding-right: 6px; }
}
@media print {
  @page { margin: 14mm; }
  body { padding: 0; max-width: none; font-size: 10pt; }
  section { margin-top: 1.2rem; }
  h2, h3 { break-after: avoid; }
  tr, .tiles > div { break-inside: avoid; }
  .wide { overflow: visible; border: 0; padding: 0 12px; } .wide .area { min-width: 0; }
  details { display: none; }
}
)css";

} // namespace play
