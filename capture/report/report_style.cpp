#include "capture/report/report_style.h"

namespace capture {

const char kReportStyle[] = R"css(
:root{--bg:#f5f6f8;--card:#fff;--ink:#1b2130;--muted:#5a6372;--line:#e1e4ea;--grid:#eceef2;
--axis:#98a1ae;--stripe:rgba(120,130,150,.06);--warn-bg:#fff4e3;--warn-ink:#6b3a00;--warn-line:#eeb25a;
--c0:#0072b2;--c1:#e69f00;--c2:#009e73;--c3:#cc79a7;--c4:#56b4e9;--c5:#8c564b;--c6:#7b7b7b;
--c7:#332288;--m0:#d55e00;--m1:#a3307a}
@media (prefers-color-scheme:dark){:root{--bg:#13161b;--card:#1b1f26;--ink:#e4e7ec;--muted:#9aa3b0;
--line:#2b313b;--grid:#252a32;--axis:#5c6572;--stripe:rgba(255,255,255,.03);--warn-bg:#35260f;
--warn-ink:#ffd9a3;--warn-line:#8a5b16;--c7:#8f80e6;--c6:#a0a0a0}}
*{box-sizing:border-box}
html{-webkit-text-size-adjust:100%}
body{margin:0;background:var(--bg);color:var(--ink);
font:14px/1.5 system-ui,-apple-system,"Segoe UI",Roboto,"Noto Sans","DejaVu Sans",sans-serif}
main{max-width:1320px;margin:0 auto;padding:28px clamp(12px,3vw,36px) 48px}
h1{font-size:23px;font-weight:650;letter-spacing:-.01em;margin:0}
h2{font-size:17px;font-weight:650;margin:34px 0 12px;padding-bottom:6px;border-bottom:1px solid var(--line)}
h3{font-size:14px;font-weight:600;margin:22px 0 8px}
figcaption h3{margin:0;font-size:13.5px;word-break:break-all}
p{margin:6px 0}
.sub,.note{color:var(--muted)}
.note{font-size:13px;max-width:80ch}
.mono,td.t{font-family:ui-monospace,"SFMono-Regular","DejaVu Sans Mono",Menlo,Consolas,monospace;
font-size:12.5px}
.cards{display:grid;grid-template-columns:repeat(auto-fill,minmax(185px,1fr));gap:12px;margin-top:16px}
.card{background:var(--card);border:1px solid var(--line);border-radius:8px;padding:12px 14px;min-width:0}
.k{color:var(--muted);font-size:11.5px;text-transform:uppercase;letter-spacing:.05em}
.v{font-size:19px;font-weight:600;font-variant-numeric:tabular-nums;white-space:nowrap;overflow:hidden;
text-overflow:ellipsis}
.d{color:var(--muted);font-size:12px;font-variant-numeric:tabular-nums}
.v.bad{color:var(--m0)}
.tablewrap{background:var(--card);border:1px solid var(--line);border-radius:8px;overflow:auto}
.tablewrap.tall{max-height:540px}
.tablewrap.short{max-height:330px}
table{border-collapse:collapse;width:100%;font-variant-numeric:tabular-nums}
th,td{padding:5px 12px;border-bottom:1px solid var(--line);text-align:left;white-space:nowrap}
th{position:sticky;top:0;background:var(--card);color:var(--muted);font-size:12px;font-weight:600;
box-shadow:inset 0 -1px 0 var(--line)}
tbody tr:nth-child(even){background:var(--stripe)}
tbody tr:last-child td{border-bottom:0}
td.n,th.n{text-align:right}
td.name{white-space:normal;overflow-wrap:anywhere;min-width:16ch}
td.more{color:var(--muted);font-style:italic;text-align:center}
.share{display:flex;align-items:center;justify-content:flex-end;gap:8px}
.bar{display:inline-block;height:6px;border-radius:3px;background:var(--c0);opacity:.75}
.barbox{display:inline-block;width:70px;text-align:left}
.alert{background:var(--warn-bg);color:var(--warn-ink);border:1px solid var(--warn-line);
border-radius:8px;padding:10px 14px;margin:18px 0 0}
.charts{display:grid;grid-template-columns:repeat(auto-fill,minmax(min(100%,470px),1fr));gap:14px}
figure{margin:0}
figcaption{display:flex;flex-wrap:wrap;justify-content:space-between;align-items:baseline;gap:2px 12px;
margin-bottom:4px}
.legend{display:flex;flex-wrap:wrap;gap:2px 14px;font-size:12px;color:var(--muted);margin:2px 0 6px}
.sw{display:inline-block;width:14px;height:3px;border-radius:2px;vertical-align:middle;margin-right:5px}
.sw.mk{width:3px;height:11px;border-radius:0}
.stats{font-size:12px;color:var(--muted);font-variant-numeric:tabular-nums}
svg.chart{display:block;width:100%;height:auto}
svg text{fill:var(--muted);font-size:11px;font-family:inherit;font-variant-numeric:tabular-nums}
svg .grid path{stroke:var(--grid);fill:none}
svg .axis{stroke:var(--axis);fill:none}
svg .yl{text-anchor:end}svg .xl{text-anchor:middle}
svg .xt{text-anchor:end;font-size:10px}svg .yt{text-anchor:middle;font-size:10px}
svg .line{fill:none;stroke-width:1.6;stroke-linejoin:round;stroke-linecap:round}
svg .dot{stroke:var(--card);stroke-width:1}
svg .band{stroke:none;opacity:.2}
svg .rule{fill:none;stroke-width:1;stroke-dasharray:3 3;opacity:.75}
svg .tip{stroke:none}
.c0{stroke:var(--c0);fill:var(--c0);background:var(--c0)}.c1{stroke:var(--c1);fill:var(--c1);background:var(--c1)}
.c2{stroke:var(--c2);fill:var(--c2);background:var(--c2)}.c3{stroke:var(--c3);fill:var(--c3);background:var(--c3)}
.c4{stroke:var(--c4);fill:var(--c4);background:var(--c4)}.c5{stroke:var(--c5);fill:var(--c5);background:var(--c5)}
.c6{stroke:var(--c6);fill:var(--c6);background:var(--c6)}.c7{stroke:var(--c7);fill:var(--c7);background:var(--c7)}
.m0{stroke:var(--m0);fill:var(--m0);background:var(--m0)}.m1{stroke:var(--m1);fill:var(--m1);background:var(--m1)}
footer{color:var(--muted);font-size:12px;margin-top:40px;border-top:1px solid var(--line);padding-top:10px}
)css";

}  // namespace capture
