// What the page does: it listens to the handset's event stream, shows what comes, and sends lines.
"use strict";

// ---- Small things

const $ = (id) => document.getElementById(id);

// An element with attributes (functions are listeners) and children; texts are texts.
function h(tag, attributes = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === "function") made.addEventListener(name, value);
    else if (value !== null) made.setAttribute(name, value);
  }
  made.append(...children);
  return made;
}

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function clamp(value, least, most) {
  return Math.min(most, Math.max(least, value));
}

// Changes the rows of a list, keeps the latest of them, and follows the end for who has not
// scrolled away from it.
function changeRows(list, most, change) {
  const atEnd = list.scrollHeight - list.scrollTop - list.clientHeight < 40;
  change();
  while (list.childElementCount > most) list.firstElementChild.remove();
  if (atEnd) list.scrollTop = list.scrollHeight;
}

function appendRows(list, rows, most) {
  changeRows(list, most, () => list.append(...rows));
}

let toastTimer = 0;
function toast(text) {
  setText($("toast"), text);
  $("toast").classList.add("shown");
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => $("toast").classList.remove("shown"), 5000);
}

// ---- The handset

let phone = 1;       // the one that is shown
let all = null;      // what /phones tells
let table = [];      // the command table
let state = null;    // the shown phone's, as it came last

// Carries out a line on the phone: {ok, said}.
async function carryOut(line) {
  try {
    const response = await fetch(`/phones/${phone}/line`, { method: "POST", body: line });
    if (!response.ok) return { ok: false, said: `the handset refuses it (${response.status})` };
    return await response.json();
  } catch {
    return { ok: false, said: "the handset cannot be reached" };
  }
}

// The same for a switch or button, whose trouble is only told.
async function act(line) {
  const { ok, said } = await carryOut(line);
  if (!ok || said) toast(said.trim());
  return ok;
}

// ---- The phone

const KIND_OF_STATE = { ended: "ended", asleep: "asleep", busy: "busy", ready: "ready" };

function daemonIs(now) {
  if (!now.daemon.runs) return KIND_OF_STATE.ended;
  if (now.power.asleep) return KIND_OF_STATE.asleep;
  return now.daemon.ready ? KIND_OF_STATE.ready : KIND_OF_STATE.busy;
}

function showDaemon(now) {
  const is = daemonIs(now);
  $("daemon").dataset.is = is;
  setText($("daemon"), is);
  setText($("daemon-detail"), now.daemon.runs
    ? `process ${now.daemon.pid}, start ${now.daemon.starts}` : "no daemon runs");
  setText($("line-path"), now.line);
  setText($("ended-how"), now.daemon.ended ? `It ended ${now.daemon.ended}.` : "");
  $("ended").hidden = now.daemon.runs;
  $("asleep").hidden = !now.power.asleep || !now.daemon.runs;
}

// The eye sees a light long before it is at its brightest, the more so the larger it is.
const seen = (value, most, exponent) => Math.pow(clamp(value / most, 0, 1), exponent);

function ledColour(now) {
  const [red, green, blue] = [now.led_red, now.led_green, now.led_blue].map((v) => v ?? 0);
  const most = Math.max(red, green, blue);
  if (most === 0) return "";
  const part = (value) => Math.round(255 * (value / most) * (0.35 + 0.65 * seen(most, 255, 0.33)));
  return `rgb(${part(red)}, ${part(green)}, ${part(blue)})`;
}

function showLed(element, now) {
  const colour = ledColour(now);
  element.style.background = colour;
  element.style.boxShadow = colour && `0 0 8px 2px ${colour}`;
}

// The picture of a panel; one is loaded at a time, then the latest.
class Panel {
  constructor(image, every) {
    this.image = image;
    this.every = every;
    this.shown = "";
    this.wanted = "";
    image.addEventListener("load", () => this.loaded());
    image.addEventListener("error", () => this.loaded());
  }
  show(number, now) {
    const light = now.panel.lit ? seen(now.backlight ?? 0, now.backlight_max || 1, 0.12) : 0;
    this.image.style.filter = `brightness(${light})`;
    this.image.alt = !now.panel.lit ? "The panel is dark"
      : `What the panel shows; backlight ${now.backlight} of ${now.backlight_max}`;
    this.wanted = `/phones/${number}/panel.png?every=${this.every}&version=${now.daemon.starts}.${now.panel.version}`;
    this.load();
  }
  load() {
    if (this.loading || this.wanted === this.shown) return;
    this.loading = true;
    this.shown = this.wanted;
    this.image.src = this.wanted;
  }
  loaded() {
    this.loading = false;
    this.load();
  }
}

const gigabytes = (bytes) => `${(bytes / 1e9).toFixed(1)} GB`;
const dot = (on) => h("span", { class: on ? "dot on" : "dot", "aria-hidden": "true" });

// Each part's name, and what is shown of it: texts and elements.
const PARTS = [
  ["Panel", (s) => [s.panel.lit ? `on, backlight ${s.backlight} of ${s.backlight_max}` : "off"]],
  ["LED", (s) => {
    const light = dot(false);
    showLed(light, s);
    return [light, ledColour(s) ? `red ${s.led_red}, green ${s.led_green}, blue ${s.led_blue}` : "off"];
  }],
  ["Key light", (s) => [dot(s.key_light > 0), s.key_light > 0 ? `on, ${s.key_light}` : "off"]],
  ["Flashes", (s) => [dot(s.rear_flash > 0), s.rear_flash > 0 ? "rear on" : "rear off",
                      dot(s.front_flash > 0), s.front_flash > 0 ? "front on" : "front off"]],
  ["Vibrator", (s) => [dot(s.vibrator > 0), s.vibrator > 0 ? `on for ${s.vibrator_ms} ms` : "off"]],
  ["Cameras", (s) => {
    const on = s.cameras.map((powered, i) => (powered ? i : -1)).filter((i) => i >= 0);
    return [...s.cameras.map(dot), on.length ? `${on.join(", ")} on` : "off"];
  }],
  ["Battery", (s) => {
    if (!s.battery_present) return ["none"];
    const level = h("span");
    level.style.width = `${clamp(s.battery_percent ?? 0, 0, 100)}%`;
    return [h("span", { class: "meter", "aria-hidden": "true" }, level),
            `${s.battery_percent} %, ${(s.battery_uv / 1e6).toFixed(2)} V, ${(s.battery_tenths / 10).toFixed(1)} °C`];
  }],
  ["USB", (s) => [s.usb ? "attached" : "not attached"]],
  ["Card", (s) => [s.card ? `${gigabytes(s.card.bytes)}, ${gigabytes(s.card.free)} free` : "none"]],
  ["Sleep", (s) => [`${s.power.asleep ? "asleep" : "awake"}, slept ${s.power.suspends} times`]],
  ["Held awake", (s) => [s.power.locks.length ? `by wake lock ${s.power.locks.join(", ")}` : "by nothing"]],
];
const partElements = PARTS.map(() => h("dd"));
const partTexts = PARTS.map(() => "");

function showParts(now) {
  PARTS.forEach(([, show], i) => {
    const shown = h("dd", {}, ...show(now));
    if (shown.outerHTML !== partTexts[i]) {
      partTexts[i] = shown.outerHTML;
      partElements[i].replaceChildren(...shown.childNodes);
    }
  });
}

function showKeys(now) {
  $("keys").classList.toggle("heard", now.keys.listening);
  for (const button of $("keys").querySelectorAll("button")) {
    button.toggleAttribute("data-held", now.keys[button.dataset.key] === "held");
  }
}

let panel = null;

function showPhone(now) {
  state = now;
  showDaemon(now);
  showLed($("led"), now);
  panel.show(phone, now);
  $("front-flash").classList.toggle("on", now.front_flash > 0);
  $("phone").classList.toggle("vibrates", now.vibrator > 0);
  $("wake").disabled = !now.power.asleep;
  $("alarm").disabled = !now.power.alarm;
  showParts(now);
  showKeys(now);
  showSensors(now);
  showSwitches(now);
}

function preparePhone() {
  panel = new Panel($("panel"), 2);
  PARTS.forEach(([name], i) => $("parts").append(h("dt", {}, name), partElements[i]));
  for (const button of $("keys").querySelectorAll("button")) {
    button.addEventListener("click", () => act(`.press ${button.dataset.key}`));
  }
  const start = () => act(".start no-wait");
  $("restart").addEventListener("click", start);
  $("ended-start").addEventListener("click", start);
  $("wake").addEventListener("click", () => act(".wake"));
  $("alarm").addEventListener("click", () => act(".alarm"));
}

// ---- The line

const MOST_EXCHANGES = 60;
const exchangeRows = new Map();  // by the exchange's id

const BADGES = {
  pass: "pass", fail: "fail", open: "...", undefined: "undefined", unknown: "not in the table",
  ok: "done", failed: "not carried out", wait: "...",
};

function outcomeRows(outcome) {
  const rows = [h("p", { class: "means" }, outcome.meaning)];
  if (outcome.fields.length) {
    rows.push(h("dl", { class: "fields" }, ...outcome.fields.flatMap((field) => [
      h("dt", {}, field.name.replaceAll("_", " ")),
      h("dd", {}, [field.value, field.unit, field.meaning && `(${field.meaning})`].filter(Boolean).join(" ")),
    ])));
  }
  if (outcome.remedy) rows.push(h("p", { class: "remedy" }, `What to do: ${outcome.remedy}`));
  return rows;
}

function fillRow(row, result, sent, replies, more = []) {
  row.className = result;
  row.replaceChildren(
    h("div", { class: "sent" }, h("code", {}, sent), h("span", { class: "badge" }, BADGES[result])),
    ...replies.map((reply) => h("div", { class: "reply" }, reply)),
    ...more);
}

function fillExchange(row, exchange) {
  fillRow(row, exchange.result, exchange.sent.replace(/\\n$/, ""), exchange.replies,
          exchange.outcomes.flatMap(outcomeRows));
}

function changeExchanges(change) {
  changeRows($("exchanges"), MOST_EXCHANGES, change);
}

function showExchange(exchange) {
  let row = exchangeRows.get(exchange.id);
  if (!row) {
    row = h("div");
    exchangeRows.set(exchange.id, row);
    $("exchanges").append(row);
  }
  fillExchange(row, exchange);
}

function showExchanges(exchanges) {
  changeExchanges(() => exchanges.slice(-MOST_EXCHANGES).forEach(showExchange));
  if (exchangeRows.size > 2 * MOST_EXCHANGES) {
    for (const [id, row] of exchangeRows) if (!row.isConnected) exchangeRows.delete(id);
  }
}

function showGap(text) {
  changeExchanges(() => $("exchanges").append(h("div", { class: "gap" }, text)));
}

// AT lines wait for each other; a dot line does not wait for them, as a key is pressed while AT+KEY
// waits.
let lineQueue = Promise.resolve();
let linesUnderWay = 0;

async function sendDotLine(line) {
  const row = h("div");
  fillRow(row, "wait", line, []);
  changeExchanges(() => $("exchanges").append(row));
  const { ok, said } = await carryOut(line);
  const rows = said ? said.replace(/\n$/, "").split("\n") : [];
  changeExchanges(() => fillRow(row, ok ? "ok" : "failed", line, rows));
}

async function sendAtLine(line) {
  const { ok, said } = await carryOut(line);
  if (!ok) toast(said.trim());
}

function showLinesUnderWay(change) {
  linesUnderWay += change;
  setText($("line-state"), linesUnderWay > 0 ? `${linesUnderWay} under way` : "");
}

function send(line) {
  remember(line);
  if (line.startsWith(".")) {
    sendDotLine(line);
    return;
  }
  showLinesUnderWay(1);
  lineQueue = lineQueue.then(() => sendAtLine(line)).finally(() => showLinesUnderWay(-1));
}

const MOST_HISTORY = 200;
let past = JSON.parse(localStorage.getItem("lines") ?? "[]");
let pastAt = null;  // the index of the shown one

function remember(line) {
  past = [...past.filter((other) => other !== line), line].slice(-MOST_HISTORY);
  pastAt = null;
  localStorage.setItem("lines", JSON.stringify(past));
}

function walkHistory(step) {
  pastAt = clamp((pastAt ?? past.length) + step, 0, past.length);
  $("line-input").value = past[pastAt] ?? "";
}

// What can be sent and begins with a text, or else has to do with it.
function choicesFor(text) {
  const folded = text.toUpperCase();
  const offered = [
    ...table.map((c) => ({ text: c.text + (c.argument ? ":" : ""), about: c.purpose, words: wordsOf(c) })),
    ...all.dots.map((name) => ({ text: name, about: "looks into the phone, or changes it; .help explains it", words: "" })),
  ];
  const begins = offered.filter((one) => one.text.toUpperCase().startsWith(folded));
  const others = folded.length > 2
    ? offered.filter((one) => !begins.includes(one) && one.words.includes(folded)) : [];
  return [...begins, ...others].slice(0, 30);
}

let chosen = -1;

function hideChoices() {
  $("choices").hidden = true;
  $("line-input").setAttribute("aria-expanded", "false");
  $("line-input").removeAttribute("aria-activedescendant");
  chosen = -1;
}

function showChoices() {
  const text = $("line-input").value;
  const found = text && all ? choicesFor(text) : [];
  if (found.length === 0 || (found.length === 1 && found[0].text === text.toUpperCase())) {
    hideChoices();
    return;
  }
  $("choices").replaceChildren(...found.map((one, i) => h("li", {
    id: `choice-${i}`, role: "option", "aria-selected": "false", "data-text": one.text,
    mousedown: (event) => { event.preventDefault(); take(one.text); },
  }, h("code", {}, one.text), h("span", {}, one.about))));
  $("choices").hidden = false;
  $("line-input").setAttribute("aria-expanded", "true");
  chosen = -1;
}

function choose(step) {
  const items = [...$("choices").children];
  chosen = (chosen + step + items.length + (chosen < 0 && step < 0 ? 1 : 0)) % items.length;
  items.forEach((item, i) => item.setAttribute("aria-selected", String(i === chosen)));
  items[chosen].scrollIntoView({ block: "nearest" });
  $("line-input").setAttribute("aria-activedescendant", items[chosen].id);
}

function take(text) {
  $("line-input").value = text;
  $("line-input").focus();
  hideChoices();
}

function onLineKey(event) {
  const open = !$("choices").hidden;
  if (event.key === "ArrowDown" || event.key === "ArrowUp") {
    event.preventDefault();
    const step = event.key === "ArrowDown" ? 1 : -1;
    if (open) choose(step);
    else walkHistory(step);
  } else if (event.key === "Tab" && open && !event.shiftKey) {
    event.preventDefault();
    take($("choices").children[Math.max(chosen, 0)].dataset.text);
  } else if (event.key === "Escape") {
    hideChoices();
  } else if (event.key === "Enter" && open && chosen >= 0) {
    event.preventDefault();
    take($("choices").children[chosen].dataset.text);
  }
}

function prepareLine() {
  const input = $("line-input");
  input.addEventListener("input", showChoices);
  input.addEventListener("keydown", onLineKey);
  input.addEventListener("blur", hideChoices);
  $("line-form").addEventListener("submit", (event) => {
    event.preventDefault();
    hideChoices();
    const line = input.value.trim();
    input.value = "";
    if (line) send(line);
  });
  document.addEventListener("keydown", (event) => {
    const types = /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.tagName);
    if (event.key === "/" && !types && !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      input.focus();
    }
  });
}

// ---- Tabs

function openTab(tab) {
  for (const other of document.querySelectorAll("[role=tab]")) {
    const selected = other === tab;
    other.setAttribute("aria-selected", String(selected));
    other.tabIndex = selected ? 0 : -1;
    $(other.getAttribute("aria-controls")).hidden = !selected;
  }
}

function prepareTabs() {
  const tabs = [...document.querySelectorAll("[role=tab]")];
  const steps = { ArrowRight: 1, ArrowLeft: -1 };
  tabs.forEach((tab, i) => {
    tab.addEventListener("click", () => openTab(tab));
    tab.addEventListener("keydown", (event) => {
      if (!(event.key in steps)) return;
      const next = tabs[(i + steps[event.key] + tabs.length) % tabs.length];
      openTab(next);
      next.focus();
    });
  });
  openTab(tabs[0]);
}

// ---- The journal

const MOST_ENTRIES = 2000;  // kept
const MOST_ROWS = 300;      // shown
const KINDS = { reply: "Replies", write: "Writes", log: "Log", wait: "Waits", program: "Programs", other: "Other" };
const hiddenKinds = new Set();
let entries = [];
let paused = false;

function kindOf(entry) {
  if (entry.text.startsWith("< ")) return "reply";
  if (entry.by === "$" || entry.text.startsWith("run ")) return "program";
  if (/^[VDIWEF](\/\S+)? /.test(entry.text)) return "log";
  const word = entry.text.split(" ", 1)[0];
  return word === "write" || word === "wait" ? word : "other";
}

const isShown = (entry) => !hiddenKinds.has(entry.kind) &&
  `${entry.by} ${entry.text}`.toLowerCase().includes($("journal-text").value.toLowerCase());

function entryRow(entry) {
  const row = h("li", { class: entry.kind });
  if (entry.by) row.append(h("span", { class: "by" }, `${entry.by} `));
  row.append(entry.text);
  return row;
}

function showJournal(added) {
  entries = entries.concat(added).slice(-MOST_ENTRIES);
  if (!paused) appendRows($("journal"), added.filter(isShown).slice(-MOST_ROWS).map(entryRow), MOST_ROWS);
}

function showJournalAnew() {
  $("journal").replaceChildren(...entries.filter(isShown).slice(-MOST_ROWS).map(entryRow));
  $("journal").scrollTop = $("journal").scrollHeight;
}

function prepareJournal() {
  for (const [kind, name] of Object.entries(KINDS)) {
    $("kinds").append(h("button", {
      type: "button", "aria-pressed": "true", "data-kind": kind,
      click: (event) => {
        const hide = event.target.getAttribute("aria-pressed") === "true";
        event.target.setAttribute("aria-pressed", String(!hide));
        if (hide) hiddenKinds.add(kind);
        else hiddenKinds.delete(kind);
        showJournalAnew();
      },
    }, name));
  }
  $("journal-text").addEventListener("input", showJournalAnew);
  $("journal-pause").addEventListener("click", () => {
    paused = !paused;
    $("journal-pause").setAttribute("aria-pressed", String(paused));
    setText($("journal-pause"), paused ? "Go on" : "Pause");
    if (!paused) showJournalAnew();
  });
}

// ---- The commands

const wordsOf = (command) => [command.text, command.purpose, ...command.answers].join("\n").toUpperCase();

function showCommands() {
  const wanted = $("commands-text").value.toUpperCase().split(/\s+/).filter(Boolean);
  const found = table.filter((command) => wanted.every((word) => wordsOf(command).includes(word)));
  setText($("commands-count"), `${found.length} of ${table.length}`);
  $("commands").replaceChildren(...found.map((command) => h("li", {}, h("button", {
    type: "button",
    click: () => take(command.text + (command.argument ? ":" : "")),
  }, h("code", {}, command.text + (command.argument ? `:${command.argument.form}` : "")),
     h("span", {}, command.purpose)))));
}

// ---- The sensors

// How far a value can be dragged, and what its values are called, by the sensor's data type.
const XYZ = ["x", "y", "z"];
const RANGES = {
  accel: { range: [-20, 20], names: XYZ, unit: "m/s²" },
  gyro: { range: [-10, 10], names: XYZ, unit: "rad/s" },
  mag: { range: [-100, 100], names: XYZ, unit: "µT" },
  ambient_light: { range: [0, 2000] },
  wise_light: { range: [0, 2000] },
  pad_als: { range: [0, 2000] },
  vice_pad_als: { range: [0, 2000] },
  pressure: { range: [300, 1100], unit: "hPa" },
};

function rangeOf(type, value) {
  return RANGES[type]?.range ?? [0, Math.max(10, 2 * Math.ceil(Math.abs(value)))];
}

let sensorShape = "";
const dragged = new Map();  // sensors whose values are being sent, and the next values

async function dragSensor(name, values) {
  if (dragged.has(name)) {
    dragged.set(name, values);
    return;
  }
  for (let next = values; next; next = dragged.get(name)) {
    dragged.set(name, null);
    await act(`.sensor ${name} ${next.join(" ")}`);
  }
  dragged.delete(name);
}

function sensorFields(sensor) {
  const inputs = sensor.values.map((value, i) => {
    const [least, most] = rangeOf(sensor.type, value);
    return h("input", {
      type: "range", min: least, max: most, step: (most - least) / 2000, id: `sensor-${sensor.name}-${i}`,
      input: () => {
        outputs[i].value = number(inputs[i].valueAsNumber);
        dragSensor(sensor.name, inputs.map((input) => input.valueAsNumber));
      },
    });
  });
  const outputs = inputs.map(() => h("output"));
  const unit = RANGES[sensor.type]?.unit;
  const names = RANGES[sensor.type]?.names ?? (inputs.length === 1 ? ["value"] : []);
  return h("fieldset", {}, h("legend", {}, unit ? `${sensor.name}, ${unit}` : sensor.name),
    ...inputs.map((input, i) => h("label", {}, h("span", {}, names[i] ?? `value ${i + 1}`),
                                  input, outputs[i])));
}

const number = (value) => Number(value.toPrecision(6)).toString();

function showSensors(now) {
  const measuring = now.sensors.filter((sensor) => sensor.values.length > 0);
  const shape = measuring.map((sensor) => `${sensor.name} ${sensor.values.length}`).join();
  if (shape !== sensorShape) {
    sensorShape = shape;
    $("sensors").replaceChildren(...measuring.map(sensorFields));
  }
  for (const sensor of measuring) {
    if (dragged.has(sensor.name)) continue;
    sensor.values.forEach((value, i) => {
      const input = $(`sensor-${sensor.name}-${i}`);
      if (input.valueAsNumber !== value && document.activeElement !== input) input.value = value;
      setText(input.nextElementSibling, number(document.activeElement === input ? input.valueAsNumber : value));
    });
  }
}

// ---- Nodes and properties

const lineFor = (name) => `${name.startsWith("/") ? ".node" : ".prop"} ${name}`;

async function lookUp() {
  const name = $("node-name").value.trim();
  if (!name) return;
  const { ok, said } = await carryOut(lineFor(name));
  const [first, ...below] = said.replace(/\n$/, "").split("\n");
  const isFolder = ok && below.length > 0;
  setText($("node-said"), isFolder ? `${below.length} nodes` : first.replace(/\\n$/, ""));
  $("node-below").replaceChildren(...(isFolder ? below : []).map((path) => h("li", {}, h("button", {
    type: "button",
    click: () => { $("node-name").value = path.trim(); lookUp(); },
  }, path.trim()))));
}

async function setNode() {
  const name = $("node-name").value.trim();
  const { ok, said } = await carryOut(`${lineFor(name)} ${$("node-value").value}`);
  if (ok) lookUp();
  else setText($("node-said"), said.trim());
}

function prepareNodes() {
  $("node-form").addEventListener("submit", (event) => {
    event.preventDefault();
    lookUp();
  });
  $("node-set").addEventListener("click", setNode);
}

// ---- Faults

const BATTERY = "/sys/class/power_supply/battery/present";
const hasSensor = (now, name) => now.sensors.some((sensor) => sensor.name === name);

// Each switch: what it is called, whether the part is whole, and the lines that mend and break it.
const SWITCHES = [
  ["Battery", (s) => s.battery_present > 0, `.node ${BATTERY} 1`, `.node ${BATTERY} 0`],
  ["Memory card", (s) => s.card !== null, ".card 32768 1941504 1931264", ".card none"],
  ["Second accelerometer", (s) => hasSensor(s, "accel_2"),
   ".sensorset accel_2 accel 1 1025 0.31 0.05 9.79", ".sensor accel_2 removed"],
  ["Volume up, not stuck", (s) => s.keys.volup === "free", ".letgo volup", ".hold volup"],
  ["Volume down, not stuck", (s) => s.keys.voldown === "free", ".letgo voldown", ".hold voldown"],
  ["Power key, not stuck", (s) => s.keys.power === "free", ".letgo power", ".hold power"],
];
const CHOICES = [
  ["Sensor hub", ["healthy", "silent", "garbage", "refusing", "absent"], (s) => s.hub, (v) => `.hub ${v}`],
  ["Waits take", ["all", "a tenth", "none"],
   (s) => (s.waits === 0 ? "none" : s.waits === 0.1 ? "a tenth" : s.waits === 1 ? "all" : ""),
   (v) => `.waits ${{ all: 1, "a tenth": 0.1, none: 0 }[v]}`],
];
let switchInputs = [];
let choiceInputs = [];

function prepareFaults() {
  choiceInputs = CHOICES.map(([name, values, , line]) => h("select", {
    "data-name": name, change: (event) => act(line(event.target.value)),
  }, ...values.map((value) => h("option", {}, value))));
  switchInputs = SWITCHES.map(([name, , mend, spoil]) => h("input", {
    type: "checkbox", role: "switch", "data-name": name,
    change: (event) => act(event.target.checked ? mend : spoil),
  }));
  const row = (name, input) => h("label", {}, h("span", {}, name), input);
  $("switches").append(...CHOICES.map(([name], i) => row(name, choiceInputs[i])),
                       ...SWITCHES.map(([name], i) => row(name, switchInputs[i])));
  $("broken").append(...all.broken.map(({ name, about }) => h("li", {},
    h("div", {}, h("code", {}, name), h("span", {}, about)),
    h("button", { type: "button", "aria-label": `Break: ${name}`,
                  click: async () => { if (await act(`.broken ${name}`)) toast(`The phone is broken now: ${name}`); } }, "Break"))));
}

function showSwitches(now) {
  SWITCHES.forEach(([, whole], i) => { switchInputs[i].checked = whole(now); });
  CHOICES.forEach(([, , value], i) => {
    if (document.activeElement !== choiceInputs[i]) choiceInputs[i].value = value(now);
  });
}

// ---- All phones

let cards = [];

function prepareOverview() {
  cards = Array.from({ length: all.phones }, (_, i) => {
    const image = h("img", { alt: "", width: 135, height: 292 });
    const led = h("span", { class: "led" });
    const chip = h("span", { class: "chip" }, "...");
    $("overview").append(h("a", { class: "card", href: `#${i + 1}` },
      h("div", { class: "phone", "aria-hidden": "true" },
        h("div", { class: "top" }, led, h("span", { class: "speaker" }), h("span", { class: "led" })),
        h("div", { class: "screen" }, image)),
      h("strong", {}, `Phone ${i + 1}`), chip));
    return { panel: new Panel(image, 8), led, chip };
  });
}

function showCard(number, now) {
  const card = cards[number - 1];
  card.panel.show(number, now);
  showLed(card.led, now);
  card.chip.dataset.is = daemonIs(now);
  setText(card.chip, daemonIs(now));
}

// ---- What comes

// The first event is shown at once, those soon after it together: a busy line costs little then.
const SHOW_EVERY = 200;  // ms
let shownLast = 0;
let gathered = { states: new Map(), exchanges: new Map(), journal: [], skipped: 0 };
let showing = false;

function showGathered() {
  const { states, exchanges, journal, skipped } = gathered;
  gathered = { states: new Map(), exchanges: new Map(), journal: [], skipped: 0 };
  showing = false;
  shownLast = performance.now();
  if (skipped) {
    showGap("Too much at once: some of it is left out here");
    journal.unshift({ by: "", text: "... some entries are left out here; Save all has them", kind: "gap" });
  }
  showExchanges([...exchanges.values()]);
  showJournal(journal);
  for (const [number, now] of states) {
    if (isOverview()) showCard(number, now);
    else showPhone(now);
  }
}

function gather(take) {
  return (event) => {
    take(JSON.parse(event.data));
    if (!showing) {
      showing = true;
      setTimeout(showGathered, clamp(shownLast + SHOW_EVERY - performance.now(), 0, SHOW_EVERY));
    }
  };
}

const isOverview = () => all.phones > 1 && !location.hash;
let stream = null;

function showAway() {
  $("daemon").dataset.is = "away";
  setText($("daemon"), "no handset");
  setText($("daemon-detail"), "it has ended or cannot be reached");
}

function listen() {
  stream?.close();
  stream = null;
  if (document.hidden) return;  // a browser has few connections for all its pages
  entries = [];
  exchangeRows.clear();
  $("exchanges").replaceChildren();
  $("journal").replaceChildren();
  const own = new EventSource(isOverview() ? "/events" : `/phones/${phone}/events`);
  own.addEventListener("state", gather((told) => gathered.states.set(told.phone, told.state)));
  own.addEventListener("exchange", gather((told) => gathered.exchanges.set(told.id, told)));
  own.addEventListener("journal", gather((told) => {
    for (const entry of told) entry.kind = kindOf(entry);
    gathered.journal = gathered.journal.concat(told).slice(-MOST_ENTRIES);
  }));
  own.addEventListener("skipped", gather(() => { gathered.skipped += 1; }));
  own.addEventListener("note", (event) => toast(JSON.parse(event.data)));
  own.addEventListener("error", () => {
    showAway();
    if (own.readyState === EventSource.CLOSED) setTimeout(() => { if (stream === own) listen(); }, 2000);
  });
  stream = own;
}

function showPlace() {
  phone = clamp(Number.parseInt(location.hash.slice(1), 10) || 1, 1, all.phones);
  const overview = isOverview();
  $("overview").hidden = !overview;
  $("phone-view").hidden = overview;
  $("restart").hidden = overview;
  $("all-phones").hidden = overview || all.phones === 1;
  setText($("title"), overview ? `${all.phones} phones` : all.phones > 1 ? `Phone ${phone}` : "Handset");
  document.title = $("title").textContent;
  document.querySelector(".line-path").hidden = overview;
  if (overview) {
    $("daemon").dataset.is = "ready";
    setText($("daemon"), "overview");
    setText($("daemon-detail"), "");
  }
  $("journal-save").href = `/phones/${phone}/journal.txt`;
  listen();
}

async function begin() {
  [all, table] = await Promise.all([
    fetch("/phones").then((response) => response.json()),
    fetch("/commands.json").then((response) => response.json()).then((read) => read.commands),
  ]);
  preparePhone();
  prepareLine();
  prepareTabs();
  prepareJournal();
  prepareNodes();
  prepareFaults();
  prepareOverview();
  $("commands-text").addEventListener("input", showCommands);
  showCommands();
  window.addEventListener("hashchange", showPlace);
  document.addEventListener("visibilitychange", listen);
  showPlace();
}

begin().catch(showAway);
