"""The page that a run leaves: one file that needs nothing else, for the machine's owner."""

import base64
import html

from demo_plot import plot
from demo_recording import APPLE_SILICON

STYLE = """
:root { color-scheme: light dark;
  --page: #f5f5f7; --card: #ffffff; --ink: #1d1d1f; --soft: #63636a; --grid: #e3e3e8;
  --held0: #2f6fd614; --held1: #b0701e17; --line: #c9c9d1; --good: #14713a; --bad: #b3261e;
  --c0: #cf3a10; --c1: #8b3fc0; --c2: #0a64c4; --c3: #07806b; --c4: #a06a00; --c5: #b8246d; }
@media (prefers-color-scheme: dark) { :root {
  --page: #101216; --card: #1a1d23; --ink: #f1f1f4; --soft: #a6a7b0; --grid: #2e323b;
  --held0: #6ea8ff1a; --held1: #ffc46b17; --line: #474c58; --good: #5fd38d; --bad: #ff8a80;
  --c0: #ff7d54; --c1: #c996f2; --c2: #66acff; --c3: #41d1b5; --c4: #e8b84a; --c5: #ff86bd; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--page); color: var(--ink); font: 15px/1.55 -apple-system,
  "PingFang SC", "Noto Sans CJK SC", "Microsoft YaHei", "WenQuanYi Micro Hei", sans-serif; }
main { max-width: 1060px; margin: 0 auto; padding: 32px 20px 48px; }
h1 { font-size: 26px; margin: 0; line-height: 1.3; }
h2 { font-size: 17px; margin: 0 0 12px; }
p { margin: 0; } .soft { color: var(--soft); }
section { background: var(--card); border-radius: 14px; padding: 20px 22px; margin-top: 18px; }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(165px, 1fr)); gap: 18px;
  margin-top: 18px; }
.tiles section { padding: 14px 18px; margin: 0; }
.tiles b { display: block; font-size: 22px; font-weight: 600; line-height: 1.35; }
.good { color: var(--good); } .bad { color: var(--bad); }
.wide { overflow-x: auto; } svg { display: block; width: 100%; min-width: 720px; height: auto; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; }
th, td { text-align: right; padding: 6px 10px; border-top: 1px solid var(--grid);
  white-space: nowrap; }
thead th { border-top: 0; color: var(--soft); font-weight: 500; }
th:first-child, td:first-child { text-align: left; padding-left: 0; }
td:last-child, th:last-child { padding-right: 0; }
td.note { white-space: normal; text-align: left; color: var(--soft); min-width: 14em; }
ol, ul { margin: 0; padding-left: 1.5em; } li { margin: 3px 0; }
.legend { display: flex; flex-wrap: wrap; gap: 4px 20px; margin: 0 0 10px; padding: 0;
  list-style: none; }
.legend svg { display: inline-block; width: 26px; min-width: 26px; height: 10px;
  margin-right: 6px; }
a { color: var(--c2); }
svg text { fill: var(--ink); font-size: 12.5px; }
svg .title { font-size: 14px; font-weight: 600; } svg .unit, svg .tick { fill: var(--soft); }
svg .unit { font-weight: 400; font-size: 12.5px; }
.grid { stroke: var(--grid); } .band { fill: none; } .held0 { fill: var(--held0); }
.held1 { fill: var(--held1); } .change { stroke: var(--line); }
.event { stroke: var(--soft); stroke-dasharray: 2 4; } .mark { fill: var(--ink); }
svg .number { fill: var(--card); font-size: 11px; font-weight: 600; }
.second { fill: transparent; } .second:hover { fill: var(--grid); fill-opacity: .5; }
.curve { fill: none; stroke-width: 2.2; stroke-linejoin: round; stroke-linecap: round; }
.target { fill: none; stroke-width: 1.4; stroke-dasharray: 5 4; opacity: .85; }
""" + "".join(f".s{i} {{ stroke: var(--c{i}); }} svg .f{i} {{ fill: var(--c{i}); }}\n"
              for i in range(6))


def escaped(text):
    return html.escape(str(text))


def shown(value, unit="", digits=0):
    return "–" if value is None else f"{value:.{digits}f}{' ' + unit if unit else ''}"


def legend(series):
    items = []
    for one in series:
        kind = "target" if one.stepped else "curve"
        items.append(f'<li><svg viewBox="0 0 26 10" aria-hidden="true"><path class="{kind} '
                     f's{one.colour}" d="M1 5H25"/></svg>{escaped(one.name)}</li>')
    return f'<ul class="legend">{"".join(items)}</ul>'


def tile(label, value, style=""):
    return (f'<section><p class="soft">{escaped(label)}</p>'
            f'<b class="{style}">{escaped(value)}</b></section>')


def tiles(recording):
    heat = [v for _, v in recording.temperatures("cpuTemperature")]
    speeds = [v for fan in recording.fan_ids() for _, v in recording.speeds(fan)]
    fans = len(recording.state["fans"])
    if recording.still_manual:
        end, style = "有风扇未恢复自动", "bad"
    else:
        end, style = (f"{fans} 个风扇均为自动" if fans else "没有风扇"), "good"
    return "".join([
        tile("处理器最高温度", shown(max(heat, default=None), "°C", 1)),
        tile("风扇最高转速", shown(max(speeds, default=None), "RPM")),
        tile("运行时长", f"{recording.seconds:.0f} 秒"),
        tile("会话结束后", end, style)])


def cell(text):
    return f"<td>{escaped(text)}</td>"


def mean(values):
    values = list(values)
    return sum(values) / len(values) if values else None


def modes_table(recording):
    fans = recording.fan_ids()
    head = "".join(f"<th>风扇 {fan + 1} 平均</th>" for fan in fans)
    has_turbo = recording.state["controller"] != APPLE_SILICON
    rows = []
    for start, end, _, title in recording.mode_spans():
        def inside(points):
            return [v for t, v in points if start <= t < end]
        heat = inside(recording.temperatures("cpuTemperature"))
        turbo = {0: "开启", 1: "关闭"}.get(next(
            (reply.get("turbo") for t, reply in recording.statuses if start <= t < end), None), "–")
        speeds = "".join(f"<td>{shown(mean(inside(recording.speeds(fan))), 'RPM')}</td>"
                         for fan in fans)
        rows.append(f"<tr><td>{escaped(title)}</td><td>{start:.0f}–{end:.0f} 秒</td>"
                    f"{cell(turbo) if has_turbo else ''}<td>{shown(mean(heat), '°C', 1)}</td>"
                    f"<td>{shown(max(heat, default=None), '°C', 1)}</td>{speeds}</tr>")
    turbo_head = "<th>睿频</th>" if has_turbo else ""
    return (f"<table><thead><tr><th>模式</th><th>时间</th>{turbo_head}<th>处理器平均</th>"
            f"<th>处理器最高</th>{head}</tr></thead><tbody>{''.join(rows)}</tbody></table>")


def common_table(recording):
    rows, values = {}, {}
    for _, line in recording.samples:
        for row in line["common"]:
            rows[row["id"]] = row
            values.setdefault(row["id"], []).append(row.get("value"))
    body = []
    for row_id, row in rows.items():
        known = [v for v in values[row_id] if v is not None]
        digits = 0 if row["unit"] == "RPM" else 1
        body.append(f"<tr><td>{escaped(row['title'])}</td>"
                    f"<td>{shown(row.get('value'), row['unit'], digits)}</td>"
                    f"<td>{shown(min(known, default=None), row['unit'], digits)}</td>"
                    f"<td>{shown(max(known, default=None), row['unit'], digits)}</td>"
                    f"<td class=\"note\">{escaped(row['explanation'])}</td></tr>")
    if not body:
        return '<p class="soft">这台设备没有可识别的传感器。</p>'
    return ("<table><thead><tr><th>传感器</th><th>结束时</th><th>最低</th><th>最高</th><th></th></tr>"
            f"</thead><tbody>{''.join(body)}</tbody></table>")


def diagnosis(recording):
    items = "".join(f"<li>{first:.0f}–{last:.0f} 秒：{escaped(text)}</li>"
                    for first, last, text in recording.findings())
    verdict = escaped(recording.samples[-1][1]["diagnosis"])
    found = f"<ul>{items}</ul>" if items else '<p class="soft">目前没有可报告的发现。</p>'
    return f"<p>结束时的结论：<strong>{verdict}</strong></p>{found}"


def leases(recording):
    items = "".join(f"<li>{first:.0f}–{last:.0f} 秒：{escaped(text)}</li>"
                    for first, last, text in recording.lease_spans())
    return ('<p class="soft">如果此时再开始一个风扇会话，会遇到什么；只读取，不改变任何设置。</p>'
            f"<ul>{items}</ul>")


def page(recording, table):
    """table: the samples as the library exports them, offered for saving."""
    drawing, heat, speeds = plot(recording)
    events = "".join(f"<li>{t:.0f} 秒：{escaped(text)}</li>" for t, text in recording.events)
    encoded = base64.b64encode(table.encode()).decode()
    state = recording.state
    targets = "虚线是会话设定的目标转速；" if any(one.stepped for one in speeds) else ""
    curves = (legend(heat + speeds) + f'<div class="wide">{drawing}</div>'
              f'<p class="soft">{targets}底色区分模式；编号对应下方的操作。</p>'
              if drawing else '<p class="soft">这台设备没有可读取的温度与风扇。</p>')
    when = recording.samples[0][1]["date"].replace("T", " ").replace("Z", " UTC")
    sections = [
        ("温度与风扇", curves),
        ("运行中的操作", f"<ol>{events}</ol>" if events else '<p class="soft">没有操作。</p>'),
        ("各模式", f'<div class="wide">{modes_table(recording)}</div>'),
        ("诊断", diagnosis(recording)),
        ("能否控制风扇", leases(recording)),
        ("常用传感器", f'<div class="wide">{common_table(recording)}</div>')]
    body = "".join(f"<section><h2>{title}</h2>{content}</section>" for title, content in sections)
    return f"""<!DOCTYPE html>
<html lang="zh-CN"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>温度与风扇运行记录</title><style>{STYLE}</style></head><body><main>
<h1>温度与风扇运行记录</h1>
<p class="soft">模拟的 {escaped(state['model'])} · {escaped(state['brand'])} · 热量与风扇按
{state['speed']:g} 倍速度运行 · {escaped(when)}</p>
<div class="tiles">{tiles(recording)}</div>{body}
<p class="soft" style="margin-top:18px"><a download="run.csv"
href="data:text/csv;base64,{encoded}">保存全部采样（CSV）</a></p>
</main></body></html>
"""
