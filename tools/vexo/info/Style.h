#pragma once

namespace vexo::info {

/// The style of a page: light or dark as the reader's system is, for a phone and for a wide screen.
inline constexpr char kStyle[] = R"css(
:root { color-scheme: light dark; --back: #ffffff; --panel: #f4f6f8; --text: #17202a; --faint: #5a6673; --line: #d5dbe1;
        --one: #2563c9; --other: #b4540a; --peak: #7d3fb2; --lost: #c0283f; }
@media (prefers-color-scheme: dark) {
  :root { --back: #12161b; --panel: #1c2229; --text: #e6eaee; --faint: #a3afbb; --line: #3a434d;
          --one: #6ea5f5; --other: #f0a35c; --peak: #c79bee; --lost: #ff7d8d; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 75rem; background: var(--back); color: var(--text);
       font: 1rem/1.45 system-ui, sans-serif; overflow-wrap: anywhere; }
h1 { font-size: 1.5rem; margin: 0 0 .25rem; }
h2 { font-size: 1.2rem; margin: 2rem 0 .5rem; }
h3 { font-size: 1rem; margin: 1rem 0 .25rem; }
p { margin: .25rem 0; }
.faint, .axis, figcaption { color: var(--faint); font-size: .875rem; }
.figures { display: grid; grid-template-columns: repeat(4, minmax(0, 1fr)); gap: .5rem; margin: 1rem 0; }
.figures div { background: var(--panel); border-radius: .4rem; padding: .5rem .7rem; }
.figures dt { color: var(--faint); font-size: .8125rem; }
.figures dd { margin: 0; font-size: 1.2rem; font-variant-numeric: tabular-nums; }
.figures dd small { display: block; font-size: .8125rem; color: var(--faint); }
.figures .bad dd { color: var(--lost); }
.notes { border-left: .25rem solid var(--lost); padding: .25rem .75rem; background: var(--panel); list-style: none; }
figure { margin: 0 0 1.25rem; }
.axis { text-align: center; }
.plot { position: relative; margin: .6rem 1.2rem 1.6rem 4.2rem; border-left: 1px solid var(--faint);
        border-bottom: 1px solid var(--faint); }
.plot svg { display: block; width: 100%; height: 100%; overflow: visible; }
.tall { height: 15rem; }
.low { height: 5rem; }
.up span { position: absolute; right: calc(100% + .4rem); transform: translateY(50%); font-size: .75rem;
           white-space: nowrap; color: var(--faint); }
.across span { position: absolute; top: calc(100% + .3rem); transform: translateX(-50%); font-size: .75rem;
               white-space: nowrap; color: var(--faint); }
.grid { stroke: var(--line); vector-effect: non-scaling-stroke; }
.mean { fill: var(--one); fill-opacity: .55; stroke: var(--one); vector-effect: non-scaling-stroke; }
.peak { fill: none; stroke: var(--peak); vector-effect: non-scaling-stroke; }
.one { fill: var(--one); }
.other { fill: var(--other); }
.second .mean { fill: var(--other); stroke: var(--other); }
.lost { stroke: var(--lost); stroke-width: 2px; vector-effect: non-scaling-stroke; }
.counted { fill: var(--lost); fill-opacity: .35; stroke: var(--lost); vector-effect: non-scaling-stroke; }
.counted:hover { fill-opacity: .6; }
.hit { fill: transparent; }
.hit:hover { fill: var(--text); fill-opacity: .12; }
rect.one:hover, rect.other:hover { fill-opacity: .75; }
.key { display: inline-block; width: .8rem; height: .8rem; border-radius: .15rem; vertical-align: -.05rem; }
.key.one { background: var(--one); }
.key.other { background: var(--other); }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; font-size: .9375rem; font-variant-numeric: tabular-nums; }
th, td { text-align: right; padding: .25rem .6rem; border-bottom: 1px solid var(--line); white-space: nowrap; }
th { color: var(--faint); font-weight: 600; vertical-align: bottom; }
thead th { white-space: normal; overflow-wrap: break-word; max-width: 12rem; }
th:first-child, td:first-child, tbody th { text-align: left; }
tbody th { color: inherit; font-weight: normal; max-width: 22rem; overflow: hidden; text-overflow: ellipsis; }
table.narrow { width: auto; min-width: min(100%, 34rem); }
tr.part th { padding-left: 1.8rem; color: var(--faint); }
td.bad { color: var(--lost); font-weight: 600; }
.cell { display: block; width: 100%; min-width: 5rem; height: .8rem; }
.bars { width: 40%; }
footer { margin-top: 2rem; border-top: 1px solid var(--line); padding-top: .5rem; }
@media (max-width: 40rem) {
  .odd { display: none; }
  .plot { margin-left: 3.4rem; margin-right: .6rem; }
  .tall { height: 11rem; }
  .figures { grid-template-columns: repeat(2, minmax(0, 1fr)); }
  table { font-size: .8125rem; }
  table.narrow { min-width: 100%; }
  th, td { padding: .25rem .3rem; }
  thead th { max-width: 7rem; }
  tbody th { white-space: normal; min-width: 6rem; overflow-wrap: anywhere; }
  .cell { min-width: 2.5rem; }
  .bars { width: 25%; }
  tr.part th { padding-left: 1rem; }
  h1 { font-size: 1.2rem; } }
)css";

}  // namespace vexo::info
