// Elements made from values. Texts of a report only ever become text nodes and attributes, never
// markup, and pass through visibleText on the way.

const kLongestText = 4000;
const kControlPictures = 0x2400;

// The text with a visible sign for each character that a browser would hide, or that would change
// the order of those around it. A text so long that it would only fill the page is cut.
function visibleText(text) {
  const shown = String(text).slice(0, kLongestText).replace(
    // eslint-disable-next-line no-control-regex
    /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]/g,
    (sign) => {
      const code = sign.charCodeAt(0);
      return code < 0x20 ? String.fromCharCode(kControlPictures + code) : '\ufffd';
    });
  return text.length > kLongestText ? `${shown}… (${formatNumber(text.length)} characters)` : shown;
}

function setAttributes(element, attributes) {
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === 'function') {
      element.addEventListener(name, value);
    } else if (value === true) {
      element.setAttribute(name, '');
    } else if (value !== undefined && value !== null && value !== false) {
      element.setAttribute(name, visibleText(value));
    }
  }
}

function appendAll(element, children) {
  for (const child of children.flat(Infinity)) {
    if (child instanceof Node) {
      element.append(child);
    } else if (child !== undefined && child !== null && child !== false) {
      element.append(visibleText(child));
    }
  }
}

// el('td', {class: 'number', click: listener}, 'text', otherElement, [more]). Attributes and
// children that are null, undefined or false are omitted; a function is a listener.
function el(name, attributes, ...children) {
  const element = document.createElement(name);
  setAttributes(element, attributes ?? {});
  appendAll(element, children);
  return element;
}

// The same for SVG.
function svg(name, attributes, ...children) {
  const element = document.createElementNS('http://www.w3.org/2000/svg', name);
  setAttributes(element, attributes ?? {});
  appendAll(element, children);
  return element;
}

// Has a screen reader read the text out.
function announce(text) {
  document.getElementById('announcer').textContent = visibleText(text);
}

// Calls `action` once its calls have paused: for inputs that change with each key.
function afterTyping(action) {
  const kPauseMilliseconds = 150;
  let timer = 0;
  return () => {
    clearTimeout(timer);
    timer = setTimeout(action, kPauseMilliseconds);
  };
}

let lastId = 0;
const newId = (prefix) => `${prefix}-${++lastId}`;

// A label with its input, select or the like.
function field(label, control) {
  control.id ||= newId('field');
  return el('span', {class: 'field'}, el('label', {for: control.id}, label), control);
}

// A qualified name, of which a narrow table shows the class, the method and the line. It cuts the
// package first, then the source, then the middle of what is left.
function javaName(name) {
  const text = visibleText(named(name));
  const [packages] = /^(?:[a-z_$][\w$]*\.)*/.exec(text);
  const source = /\((?:[^()\s]*:\d+|Native Method|Unknown Source)\)$/.exec(text)?.[0] ?? '';
  const line = /:\d+(?=\)$)/.exec(source)?.[0] ?? '';
  const rest = text.slice(packages.length, text.length - source.length);
  const end = /[.$][\w$<>]{1,24}$/.exec(rest)?.[0] ?? '';
  return el('span', {class: 'java', title: name},
    el('span', {class: 'packages'}, packages),
    el('span', {class: 'name'},
      el('span', {class: 'start'}, rest.slice(0, rest.length - end.length)),
      el('span', {class: 'end'}, end),
      source && el('span', {class: 'source'},
        el('span', {class: 'file'}, source.slice(0, source.length - line.length - 1)), line,
        el('span', {class: 'file'}, ')'))));
}

// A text in which a long name has lines of its own where it does not fit, and breaks between its
// parts only.
const breakable = (text) => visibleText(text).split(/([^\s,;]{24,})/).map((word, index) =>
  (index % 2 === 0 ? word : el('span', {class: 'word'}, word.split(/(?<=[.$@(])/)
    .flatMap((part, place) => (place === 0 ? [part] : [el('wbr'), part])))));

// A thread's name, of which a narrow table keeps the end: it tells the threads of a pool apart.
function threadName(name) {
  const kEnd = 6;
  const text = visibleText(named(name));
  return el('span', {class: 'thread', title: name}, el('span', null, text.slice(0, -kEnd)),
    el('span', {class: 'end'}, text.slice(-kEnd)));
}

// Pairs of a title and a value.
const factList = (facts) => el('dl', {class: 'facts'},
  facts.map(([title, value]) => [el('dt', null, title), el('dd', null, value)]));

// A titled part of a view.
function panel(title, ...children) {
  const id = newId('panel');
  return el('section', {class: 'panel', 'aria-labelledby': id}, el('h3', {id}, title), ...children);
}

// A picture with the table of its numbers, which opens below it.
function figure(caption, picture, table) {
  return el('figure', null, el('figcaption', null, caption), picture,
    el('details', {class: 'numbers'}, el('summary', null, 'The numbers as a table'), table));
}

// The colour that a CSS custom property stands for in the chosen theme, as canvas takes it.
function themeColour(property) {
  const probe = el('span', {hidden: true});
  probe.style.color = `var(${property})`;
  document.body.append(probe);
  const colour = getComputedStyle(probe).color;
  probe.remove();
  return colour;
}
