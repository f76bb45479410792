"""The page of a unit: one HTML file that needs no other."""

import base64
import html
import pathlib
import time

from .record import Measure, Step, Unit

STYLE = """
body { font: 15px/1.5 sans-serif; margin: 2em auto; max-width: 70em; padding: 0 1em; color: #222 }
h1 { margin-bottom: 0 } .about { color: #666; margin-top: 0.2em }
.word { color: white; border-radius: 3px; padding: 0 0.5em; font-size: 85% }
.word.passed { background: #2a7d3f } .word.failed { background: #b3261e }
.word.skipped, .word.incomplete { background: #777 }
table { border-collapse: collapse; width: 100% }
td, th { text-align: left; vertical-align: top; padding: 4px 8px }
tr.step { border-top: 1px solid #ddd } td.number, td.time { color: #888; white-space: nowrap }
.why { color: #b3261e; white-space: pre-wrap } .out { color: #b3261e; font-weight: bold }
.measures td { padding: 0 1.2em 0 0 } .measures { width: auto; font-size: 14px }
img { height: 160px; border: 1px solid #aaa; margin: 4px 8px 4px 0 } summary { color: #555; font-size: 13px }
pre { background: #f5f5f5; padding: 6px; overflow-x: auto; margin: 4px 0; font-size: 12px }
"""


def _measure(measure: Measure) -> str:
    mark = "" if measure.passed else ' class="out"'
    cells = (measure.name, measure.value, measure.limits)
    return f"<tr{mark}>" + "".join(f"<td>{html.escape(cell)}</td>" for cell in cells) + "</tr>"


def _picture(content: bytes) -> str:
    data = base64.b64encode(content).decode()
    return f'<img alt="the panel" src="data:image/png;base64,{data}">'


def _step(number: int, step: Step) -> str:
    parts = [html.escape(step.title)]
    if step.why:
        parts.append(f'<div class="why">{html.escape(step.why)}</div>')
    if step.measures:
        rows = "".join(_measure(measure) for measure in step.measures)
        parts.append(f'<table class="measures">{rows}</table>')
    if step.pictures:
        parts.append("<div>" + "".join(_picture(content) for content in step.pictures) + "</div>")
    if step.exchange:
        lines = html.escape("\n".join(str(entry) for entry in step.exchange))
        shown = " open" if step.outcome == "failed" else ""
        parts.append(f"<details{shown}><summary>exchange</summary><pre>{lines}</pre></details>")
    return (
        f'<tr class="step" id="{html.escape(step.name)}"><td class="number">{number}</td>'
        f'<td><span class="word {step.outcome}">{step.outcome}</span></td><td>{"".join(parts)}</td>'
        f'<td class="time">{step.seconds:.1f} s</td></tr>'
    )


def page(unit: Unit) -> str:
    """The page's text."""
    verdict = unit.verdict
    counts = {
        word: sum(step.outcome == word for step in unit.steps)
        for word in ("passed", "failed", "skipped")
    } | {"left out": unit.left_out}
    counted = ", ".join(f"{count} {word}" for word, count in counts.items() if count)
    took = sum(step.seconds for step in unit.steps)
    began = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(unit.began))
    steps = "\n".join(_step(number, step) for number, step in enumerate(unit.steps, 1))
    name = html.escape(unit.name)
    return f"""<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>{name} {verdict}</title><style>{STYLE}</style></head>
<body>
<h1>{name} <span class="word {verdict}">{verdict}</span></h1>
<p class="about">{began}, {html.escape(unit.line)}: {counted} in {took:.0f} s</p>
<table>
{steps}
</table>
</body></html>
"""


def write_page(unit: Unit, folder: pathlib.Path) -> pathlib.Path:
    """Writes the page to a file that has the unit's name, and gives its path. Raises OSError."""
    safe = "".join(char if char.isalnum() or char in "-_." else "_" for char in unit.name)
    file = folder / f"{safe.lstrip('.') or 'unit'}.html"
    folder.mkdir(parents=True, exist_ok=True)
    file.write_text(page(unit), encoding="utf-8")
    return file
