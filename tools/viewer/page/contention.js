// Contention reports: what is stuck, blocked threads over time, the locks, and of one lock who
// waited for whom. Times of day are UTC.

const contentionView = {
  id: 'contention',
  title: 'Contention',
  isIn: (report) => (report.contention ?? []).length > 0,

  build(report) {
    const shown = el('div');
    const reports = report.contention;
    const show = (one) => shown.replaceChildren(contentionReport(one));
    const choice = el('select', {change: () => show(reports[Number(choice.value)])},
      reports.map((one, index) => el('option', {value: index}, contentionTitle(one))));
    show(reports[0]);
    return {element: el('div', null,
      reports.length > 1 && el('div', {class: 'controls'}, field('Profile', choice)), shown)};
  },
};

const kNanos = 1e6;  // of a millisecond
const isBlocking = (lock) => lock.kind === 'monitor' || lock.kind === 'lock';

// Milliseconds: "1,234", "12.3", "<0.1".
function formatMillis(nanos) {
  const millis = nanos / kNanos;
  return millis >= 100 ? formatNumber(Math.round(millis))
    : millis > 0 && millis < 0.1 ? '<0.1' : millis === 0 ? '0' : millis.toFixed(1);
}

const formatClock = (millis) => new Date(millis).toISOString().slice(11, 19);
const formatDay = (millis) => new Date(millis).toISOString().slice(0, 19).replace('T', ' ');

const contentionTitle = (one) => `${formatDay(one.started)} to ${
  formatDay(one.ended ?? one.written)} UTC`;

// The sum over locks of what a lock or a sum of locks has.
const timeOf = (lock) => lock.totalNanos ?? lock.blockedNanos;

// What is not told apart has no name of its own.
const lockName = (lock) => lock.name ?? `${lock.class ?? '(classes not told apart)'} (others)`;

function contentionReport(one) {
  const detail = el('div');
  const locks = el('div');
  const show = (range) => locks.replaceChildren(lockPanel(one, range, detail));
  show(null);
  return el('div', null, contentionHead(one), stuckPanel(one), timePanel(one, show), locks, detail,
    waitPanel(one), missingPanel(one));
}

function contentionHead(one) {
  const {totals} = one;
  return panel(contentionTitle(one),
    el('dl', {class: 'tiles small'}, [
      ['Blocked', `${formatMillis(totals.totalNanos)} ms`],
      ['Entries', formatNumber(totals.entries)],
      ['Locks', formatNumber(totals.locks)],
      ['Still blocked', plural(totals.stillBlocked, 'thread', 'threads')],
    ].map(([title, value]) =>
      el('div', null, el('dt', null, title), el('dd', {class: 'value'}, value)))),
    one.ended === null && el('p', null, `It was not stopped: it still ran at ${
      formatDay(one.written)} UTC, when this was written, or the JVM was killed later. What came ` +
      'after is not in it.'),
    one.filtered && el('p', {class: 'note'}, 'Sums and shares are of the locks that were selected.'));
}

function stuckPanel(one) {
  if (one.stuck.length === 0 && one.deadlocks.length === 0) {
    return null;
  }
  const since = (at) => `${formatNumber(Math.round((one.written - at) / 1000))} s`;
  const circles = one.deadlocks.map((circle) => el('li', null,
    el('strong', null, `Deadlock of ${plural(circle.length, 'thread', 'threads')}`),
    el('ul', null, circle.map((link) =>
      el('li', null, `${link.thread ?? '(thread not known)'} waits for ${link.name}`)))));
  const stuck = one.stuck.map((lock) => el('li', null,
    el('strong', null, lock.name),
    `: ${plural(lock.waiterCount, 'thread', 'threads')}, the first for ${since(lock.since)} (since ${
      formatClock(lock.since)}). `,
    lock.owner
      ? `Held by ${lock.owner.thread ?? '(thread not known)'}, ${lock.owner.site ?? '(stack not known)'}.`
      : `${ownerNote(lock.ownerNote)}.`,
    lock.owner && stackDetails('What the owner does', lock.owner.stack),
    el('ul', null, lock.waiters.map((waiter) => el('li', null,
      `${waiter.thread ?? '(thread not known)'} for ${since(waiter.since)} in ${
        waiter.site ?? '(stack not known)'}`, stackDetails('Its stack', waiter.stack)))),
    lock.waiterCount > lock.waiters.length &&
      `${formatNumber(lock.waiterCount - lock.waiters.length)} more threads are not listed.`));
  return el('section', {class: 'panel problems', 'aria-label': 'Stuck'},
    el('h3', null, `Stuck at ${formatDay(one.written)} UTC, when this was written`),
    el('ul', null, circles, stuck));
}

const stackDetails = (title, frames) => frames && el('details', null, el('summary', null, title),
  el('ol', {class: 'stack'}, frames.map((frame) => el('li', null, frame))));

// Why the owner is not known, as in the terminal.
const kOwnerNotes = {
  virtual: 'The owner is a virtual thread, which the VM does not name',
  handedOver: 'Held by nobody: a fair lock, promised to the next thread',
  notKept: 'The owner is not known: a lock of this kind does not keep it',
  changed: 'The owner is not known: it let go meanwhile',
  none: 'Held by nobody at that moment',
};
const ownerNote = (note) => (note === null ? 'The owner is not known'
  : Object.hasOwn(kOwnerNotes, note) ? kOwnerNotes[note] : `The owner is not known: ${note}`);

// Blocked threads over time, with a brush: `show` gets the times that were chosen, or null for all.
function timePanel(one, show) {
  if (one.windows.length < 2) {
    return null;
  }
  const labels = one.windows.map((window) => formatClock(window.started));
  const from = el('select', null, labels.map((label, index) => el('option', {value: index}, label)));
  const to = el('select', null, one.windows.map((window, index) =>
    el('option', {value: index}, formatClock(window.ended))));
  const chart = timeChart(one.windows, (first, last) => choose(first, last));
  const choose = (first, last) => {
    [from.value, to.value] = [first, last];
    const isAll = first === 0 && last === one.windows.length - 1;
    chart.mark(isAll ? null : [first, last]);
    show(isAll ? null : {from: one.windows[first].started, to: one.windows[last].ended});
  };
  const chosen = () => choose(Math.min(Number(from.value), Number(to.value)),
    Math.max(Number(from.value), Number(to.value)));
  from.addEventListener('change', chosen);
  to.addEventListener('change', chosen);
  to.value = one.windows.length - 1;
  const all = el('button', {type: 'button', click: () => choose(0, one.windows.length - 1)},
    'All times');
  return panel('Blocked threads over time (UTC)',
    el('p', {class: 'note'}, 'How many threads were blocked on average in each window. Drag over the ' +
      'bars to see the locks of these times only.'),
    el('div', {class: 'controls'}, field('From', from), field('To', to), all), chart.element);
}

// Gives {element, mark}; `choose` is called with the first and last window that were dragged over.
function timeChart(windows, choose) {
  const [width, height, left, bottom, top] = [860, 180, 56, 24, 10];
  const plotWidth = width - left - 8;
  const plotHeight = height - bottom - top;
  const start = windows[0].started;
  const end = Math.max(start + 1, maximum(windows.map((window) => window.ended)));
  const x = (time) => left + (plotWidth * (time - start)) / (end - start);
  const threads = (window) => window.ended > window.started
    ? window.blockedNanos / kNanos / (window.ended - window.started) : 0;
  const highest = roundUp(Math.max(1, Math.ceil(maximum(windows.map(threads)))));
  const y = (value) => top + plotHeight * (1 - value / highest);
  const most = windows.reduce((a, b) => (threads(b) > threads(a) ? b : a));
  const picture = svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'chart brush', role: 'img',
    'aria-label': `Blocked threads over time: at most ${threads(most).toFixed(1)}, from ${
      formatClock(most.started)} on`});
  for (const tick of highest === 1 ? [0, 1] : [0, highest / 2, highest]) {
    picture.append(
      svg('line', {class: 'grid', x1: left, x2: width - 8, y1: y(tick), y2: y(tick)}),
      svg('text', {x: left - 8, y: y(tick) + 4, 'text-anchor': 'end'}, String(tick)));
  }
  const bars = windows.map((window) => svg('rect', {class: 'bar', x: x(window.started),
    width: Math.max(0.5, x(window.ended) - x(window.started) - 1), y: y(threads(window)),
    height: plotHeight * threads(window) / highest},
  svg('title', null, `${formatClock(window.started)}: ${threads(window).toFixed(1)} threads, ${
    plural(window.entries, 'entry', 'entries')}`)));
  picture.append(...bars,
    svg('text', {x: left, y: height - 6}, formatClock(start)),
    svg('text', {x: width - 8, y: height - 6, 'text-anchor': 'end'}, formatClock(end)));

  const windowAt = (event) => {
    const area = picture.getBoundingClientRect();
    const time = start + ((event.clientX - area.left) * width / area.width - left) / plotWidth *
      (end - start);
    const found = windows.findIndex((window) => time < window.ended);
    return found < 0 ? windows.length - 1 : found;
  };
  const mark = (range) => bars.forEach((bar, index) =>
    bar.classList.toggle('unchosen', range !== null && (index < range[0] || index > range[1])));
  const ordered = (a, b) => [Math.min(a, b), Math.max(a, b)];
  let begun = null;
  picture.addEventListener('pointerdown', (event) => {
    begun = windowAt(event);
    picture.setPointerCapture(event.pointerId);
    mark([begun, begun]);
    event.preventDefault();
  });
  picture.addEventListener('pointermove', (event) => begun !== null &&
    mark(ordered(begun, windowAt(event))));
  picture.addEventListener('pointerup', (event) => {
    if (begun !== null) {
      choose(...ordered(begun, windowAt(event)));
      begun = null;
    }
  });
  return {element: picture, mark};
}

// What a lock had in the windows that were chosen, as far as they name it.
function inRange(lock, range) {
  const windows = (lock.windows ?? []).filter((window) =>
    window.started >= range.from && window.ended <= range.to);
  return {nanos: sum(windows.map((window) => window.blockedNanos)),
    entries: sum(windows.map((window) => window.entries))};
}

function lockRows(one, range, byClass) {
  const all = [...one.locks, ...one.otherLocks].filter(isBlocking).map((lock) => ({
    lock, name: lockName(lock), kind: lock.kind, longest: lock.longestNanos ?? lock.maxNanos,
    goesOn: (lock.longestNanos ?? 0) > lock.maxNanos,
    stillBlocked: lock.stillBlocked ?? 0,
    ...(range ? inRange(lock, range) : {nanos: timeOf(lock), entries: lock.entries}),
  })).filter((row) => !range || row.nanos > 0 || row.entries > 0);
  if (!byClass) {
    return all;
  }
  const classes = new Map();
  for (const row of all) {
    const name = row.lock.class ?? lockName(row.lock);
    const key = `${row.kind} ${name}`;
    const sums = classes.get(key) ??
      {lock: null, name, kind: row.kind, longest: 0, stillBlocked: 0, nanos: 0, entries: 0};
    if (row.longest > sums.longest) {
      [sums.longest, sums.goesOn] = [row.longest, row.goesOn];
    }
    for (const part of ['stillBlocked', 'nanos', 'entries']) {
      sums[part] += row[part];
    }
    classes.set(key, sums);
  }
  return [...classes.values()];
}

function lockPanel(one, range, detail) {
  const byClass = el('input', {type: 'checkbox'});
  const holder = el('div');
  const show = () => {
    const rows = lockRows(one, range, byClass.checked);
    const whole = sum(rows.map((row) => row.nanos));
    const columns = [
      {title: byClass.checked ? 'Class' : 'Lock', wide: true, value: (row) => row.name,
        show: (row) => javaName(row.name)},
      {title: 'Blocked ms', numeric: true, value: (row) => row.nanos,
        show: (row) => formatMillis(row.nanos)},
      {title: 'Share', numeric: true, value: (row) => row.nanos,
        show: (row) => formatShare(row.nanos, whole),
        share: (row) => (whole > 0 ? row.nanos / whole : 0)},
      {title: 'Entries', numeric: true, value: (row) => row.entries},
      {title: 'Longest ms', numeric: true, value: (row) => row.longest,
        show: (row) => `${formatMillis(row.longest)}${row.goesOn ? '+' : ''}`},
      {title: 'Still blocked', numeric: true, value: (row) => row.stillBlocked},
      {title: 'Kind', value: (row) => row.kind},
      {title: 'Field', value: (row) => row.lock?.field ?? '',
        show: (row) => el('span', {title: row.lock?.field ?? ''}, shortName(row.lock?.field ?? '', 2))},
    ];
    holder.replaceChildren(filteredTable({caption: 'Locks by blocked time', rows, sortBy: 1,
      columns: byClass.checked ? columns.slice(0, -1) : columns,
      onSelect: byClass.checked ? null : (row) => {
        detail.replaceChildren(pairPanel(one, row));
        announce(`Who waited for ${row.name} below`);
      }}, (row) => `${row.name}\n${row.lock?.field ?? ''}`).element);
  };
  byClass.addEventListener('change', show);
  show();
  return panel(range ? `Locks from ${formatClock(range.from)} to ${formatClock(range.to)} UTC` : 'Locks',
    el('p', {class: 'note'}, 'Time with that of threads that were still blocked when this was ' +
      'written; + after the longest: it is one of those. Choose a lock to see who waited for whom.'),
    range && el('p', {class: 'note'}, 'Time and entries are of these windows, each of which names only ' +
      'the locks with most time in it; the longest, and who is still blocked, are of the whole ' +
      'profile.'),
    el('div', {class: 'controls'}, el('label', {class: 'check'}, byClass, ' Group by class')), holder);
}

// The pairs of a lock between the same sites as one.
function sitePairs(lock) {
  const sums = new Map();
  for (const pair of lock.pairs) {
    const key = JSON.stringify([pair.waiterSite, pair.ownerSite, pair.ownerNote, pair.ownerWaitsFor]);
    const row = sums.get(key) ?? {...pair, nanos: 0, samples: 0, waiters: new Set(), owners: new Set()};
    row.nanos += pair.nanos;
    row.samples += pair.samples;
    row.waiters.add(pair.waiterThread ?? '(thread not known)');
    if (pair.ownerThread !== null) {
      row.owners.add(pair.ownerThread);
    }
    sums.set(key, row);
  }
  return [...sums.values()];
}

const someThreads = (threads) => (threads.size > 1
  ? `${[...threads][0]} and ${threads.size - 1} more` : [...threads][0] ?? '');

function pairPanel(one, {lock, name}) {
  const rows = sitePairs(lock);
  const nameOf = (id) => one.locks.find((other) => other.id === id)?.name ??
    `(lock ${id}, not in the report)`;
  const whole = sum(rows.map((row) => row.nanos));
  const stacks = el('div', {class: 'columns'});
  const show = (row) => stacks.replaceChildren(
    panel(`The waiter: ${someThreads(row.waiters)}`, frameList(row.waiter, row.waiterCut, null)),
    row.owner === null ? panel('The owner', el('p', {class: 'note'}, `${ownerNote(row.ownerNote)}.`))
      : panel(`The owner: ${someThreads(row.owners)}`,
        frameList(row.owner, row.ownerCut, row.holdingFrame)));
  const table = dataTable({caption: 'Who waited for whom', rows, sortBy: 2, onSelect: show, columns: [
    {title: 'Waited in', wide: true, value: (row) => row.waiterSite ?? '(stack not known)',
      show: (row) => javaName(row.waiterSite ?? '(stack not known)')},
    {title: 'Held by', wide: true,
      value: (row) => row.ownerSite ?? ownerNote(row.ownerNote),
      show: (row) => (row.ownerSite === null ? ownerNote(row.ownerNote) : javaName(row.ownerSite))},
    {title: 'Blocked ms', numeric: true, value: (row) => row.nanos,
      show: (row) => formatMillis(row.nanos)},
    {title: 'Share', numeric: true, value: (row) => row.nanos,
      show: (row) => formatShare(row.nanos, whole), share: (row) => (whole > 0 ? row.nanos / whole : 0)},
    {title: 'Samples', numeric: true, value: (row) => row.samples},
    {title: 'Waiting threads', value: (row) => someThreads(row.waiters)},
    {title: 'Owners', value: (row) => someThreads(row.owners)},
    ...(rows.some((row) => row.ownerWaitsFor !== null) ? [{title: 'And itself waits for', wide: true,
      value: (row) => (row.ownerWaitsFor === null ? '' : nameOf(row.ownerWaitsFor))}] : []),
  ]});
  return panel(`Who waited for ${name}`,
    rows.length === 0 ? el('p', {class: 'note'}, 'No sample shows it.')
      : el('p', {class: 'note'}, `Samples of the whole profile stand for ${formatMillis(whole)} ms. ` +
        'Choose a row for both stacks.'),
    rows.length > 0 && table.element, stacks);
}

// The frames of one stack, in which the one that took the lock is marked.
const frameList = (frames, isCut, holding) => (frames === null
  ? el('p', {class: 'note'}, '(stack not known)')
  : el('ol', {class: 'stack'}, frames.map((frame, index) => el('li', null,
    index === holding ? el('strong', null, `${frame} took the lock`) : frame)),
  isCut && el('li', null, '…')));

function waitPanel(one) {
  const waits = [...one.locks, ...one.otherLocks].filter((lock) => !isBlocking(lock));
  if (waits.length === 0) {
    return null;
  }
  const withIdle = el('input', {type: 'checkbox'});
  const holder = el('div');
  const show = () => holder.replaceChildren(filteredTable({caption: 'Waits', sortBy: 1,
    rows: waits.filter((lock) => withIdle.checked || !lock.idle), columns: [
      {title: 'Waited for', wide: true, value: lockName, show: (lock) => javaName(lockName(lock))},
      {title: 'Time ms', numeric: true, value: timeOf, show: (lock) => formatMillis(timeOf(lock))},
      {title: 'Waits', numeric: true, value: (lock) => lock.entries},
      {title: 'Kind', value: (lock) => lock.kind},
      {title: 'Mostly in', value: (lock) => lock.pairs[0]?.waiterSite ?? ''},
    ]}, lockName).element);
  withIdle.addEventListener('change', show);
  show();
  const idle = waits.filter((lock) => lock.idle);
  return panel('Waits, which are not contention',
    idle.length > 0 && el('div', {class: 'controls'}, el('label', {class: 'check'}, withIdle,
      ` With ${plural(idle.length, 'that is', 'that are')} idle (${
        formatMillis(sum(idle.map(timeOf)))} ms): pools without a task, timers, reference queues`)),
    holder);
}

const missingPanel = (one) => panel('What is not in it, and what it cost',
  one.missing.length > 0 && el('ul', {class: 'sentences'}, one.missing.map((text) => el('li', null, text))),
  el('p', {class: 'note'}, `Samples cost ${formatMillis(one.cost.processorNanos)} ms of processor time, ${
    plural(one.cost.safepoints, 'safepoint', 'safepoints')} (the calls took ${
    formatMillis(one.cost.safepointNanos)} ms) and ${
    plural(one.cost.handshakes, 'handshake', 'handshakes')} (${
    formatMillis(one.cost.handshakeNanos)} ms); ${formatNumber(one.cost.ticks)} looks, ${
    formatNumber(one.cost.ticksLeftOut)} skipped. Counting, on the program's own threads, comes on top.`));
