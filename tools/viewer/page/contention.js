// The contention profile: what is stuck, when threads were blocked, and at which locks, with those
// who held them; waits apart.

const contentionView = {
  id: 'contention',
  title: 'Contention',
  isIn: (report, session, profile) => Boolean(profile),

  build(report, session, profile) {
    const moment = momentFormatFor([profile.started, profile.written]);
    const detail = el('div');
    const locks = lockPanel(profile, (row) =>
      detail.replaceChildren(rowDetail(profile, row, moment)));
    const line = profile.windows.length > 0 &&
      brushedTimeLine(profile.windows, moment, locks.select);
    const element = el('div', null,
      stuckPanel(profile, moment),
      contentionTiles(profile),
      headPanel(profile, moment),
      line && panel('Blocked time by window, in milliseconds',
        figure('Drag over the time line to select some windows: the table of locks below has their ' +
          'time. Longest blocks, details of a lock, pairs, flame graphs and waits are of the complete ' +
          'profile, as they are not known by window.', line.element, windowTable(profile, moment))),
      locks.element, detail, waitPanel(profile), costPanel(profile));
    locks.open();
    return {element};
  },
};

const tileList = (tiles) => el('dl', {class: 'tiles'}, tiles.map(([title, value, note]) =>
  el('div', null, el('dt', null, title), el('dd', {class: 'value'}, value),
    el('dd', {class: 'note'}, note))));

function contentionTiles(profile) {
  const {locks, entries, totalNanos: nanos, stillBlocked} = profile.totals;
  const longest = [...allLocks(profile)].filter(isContention).reduce((most, lock) =>
    (most === null || longestNanos(lock) > longestNanos(most) ? lock : most), null);
  return tileList([
    ['Blocked', formatNanos(nanos), 'threads at monitors and locks, in all'],
    ['Contended entries', formatNumber(entries), 'that have ended'],
    ['Locks', formatNumber(locks), profile.otherLocks.some(isContention)
      ? 'and others, summed up by class' : 'with blocked threads'],
    ['Longest block', longest ? formatNanos(longestNanos(longest)) : '–',
      longest && hasLongestStill(longest) ? 'goes on' : 'of one thread'],
    ['Still blocked', formatNumber(stillBlocked), 'threads when this was written'],
  ]);
}

function headPanel(profile, moment) {
  const end = profile.ended ?? profile.written;
  return panel(`From ${momentFormatFor([])(profile.started)} to ${moment(end)} UTC (${
    formatNanos(contentionLength(profile) * kNanosOfMilli)})`,
  profile.ended === null && el('p', {class: 'note', id: 'still-running'},
    el('strong', null, 'Not stopped: '), `the profile still ran at ${moment(profile.written)} UTC, ` +
    'when this was written, or the JVM was killed later. What came after is not in it.'),
  profile.filtered && el('p', {class: 'note'}, 'Only the locks that were selected are here, and all ' +
    'sums are of these.'),
  !hasContention(profile) && el('p', {class: 'note'}, 'No thread was blocked by a monitor or lock ' +
    'that is in this report.'),
  el('p', {class: 'note'}, {
    exact: 'Times and entries are exact',
    parks: 'Times are exact, entries those of monitors only',
  }[profile.parks] ?? 'Times and entries, which are those of monitors only, are exact',
  '; who held a lock is known from samples.'),
  profile.missing.length > 0 && el('details', {open: true, id: 'missing'},
    el('summary', null, 'What is not in this report'),
    el('ul', {class: 'missing'}, profile.missing.map((text) => el('li', null, text)))));
}

function windowTable(profile, moment) {
  return dataTable({caption: 'Windows of the profile', rows: profile.windows, columns: [
    {title: 'From (UTC)', value: (row) => row.started, show: (row) => moment(row.started)},
    {title: 'To (UTC)', value: (row) => row.ended, show: (row) => moment(row.ended)},
    millisColumn('Blocked ms', (row) => row.blockedNanos),
    {title: 'Entries', numeric: true, value: (row) => row.entries},
    millisColumn('Waited ms', (row) => row.waitNanos),
    {title: 'Waits', numeric: true, value: (row) => row.waits},
  ]}).element;
}

const millisColumn = (title, value) =>
  ({title, numeric: true, value, show: (row) => formatMillis(value(row))});

// Deadlocks first, then the locks at which threads are stuck; nothing where none are.
function stuckPanel(profile, moment) {
  if (profile.stuck.length === 0 && profile.deadlocks.length === 0) {
    return null;
  }
  const section = panel(`Stuck at ${moment(profile.written)} UTC, when this was written`,
    profile.deadlocks.map((circle) => deadlock(profile, circle)),
    profile.stuck.map((one) => stuckLock(profile, one, moment)));
  section.classList.add('stuck');
  return section;
}

function deadlock(profile, circle) {
  const waiterOf = (thread) => profile.stuck.flatMap((one) => one.waiters)
    .find((waiter) => waiter.thread === thread);
  return el('div', {class: 'deadlock'},
    el('h4', null, `Deadlock of ${plural(circle.length, 'thread', 'threads')}: each waits for what ` +
      'another one of them holds'),
    el('ol', null, circle.map(({thread, waitsFor, name}) => {
      const holder = profile.stuck.find((one) => one.lock === waitsFor)?.owner?.thread ?? null;
      const site = waiterOf(thread)?.site ?? null;
      return el('li', null, el('strong', null, threadText(thread)), ' waits for ', code(name),
        holder !== null && [', which ', el('strong', null, threadText(holder)), ' holds'],
        site !== null && [', in ', code(site)]);
    })));
}

const code = (text) => el('code', null, breakable(text));

function stuckLock(profile, one, moment) {
  const lengthOf = (since) => formatNanos(Math.max(0, profile.written - since) * kNanosOfMilli);
  const nameOf = (id) => profile.locks.find((lock) => lock.id === id)?.name ??
    `(lock ${id}, not in the report)`;
  const rest = one.waiterCount - one.waiters.length;
  return el('div', {class: 'stuck-lock'},
    el('h4', null, code(one.name), `: ${plural(one.waiterCount, 'thread', 'threads')} blocked, the ` +
      `first for ${lengthOf(one.since)}, since ${moment(one.since)} UTC`),
    one.owner === null ? el('p', null, ownerNoteText(one.ownerNote))
      : stackDetails(one.owner.stack, 'Held by ', el('strong', null, threadText(one.owner.thread)),
        one.owner.site !== null && [', ', one.owner.holdingFrame !== null ? 'taken in ' : 'which is in ',
          code(one.owner.site)],
        one.owner.now !== null && [', now in ', code(one.owner.now)],
        one.owner.waitsFor !== null && [', and itself waits for ', code(nameOf(one.owner.waitsFor))]),
    one.waiters.map((waiter) => stackDetails(waiter.stack, el('strong', null,
      threadText(waiter.thread)), ` for ${lengthOf(waiter.since)} in `, code(siteText(waiter.site)))),
    rest > 0 && el('p', {class: 'note'}, `${plural(rest, 'more thread', 'more threads')}.`));
}

// A line that opens to the stack, where there is one.
const stackDetails = (stack, ...text) => (stack === null ? el('p', {class: 'bare'}, text)
  : el('details', null, el('summary', null, text),
    el('ol', {class: 'stack'}, stack.map((frame) => el('li', null, frame)))));

// The table of locks. Gives {element, select(selection) and open(), which shows the first row}.
function lockPanel(profile, onRow) {
  const byClass = el('input', {type: 'checkbox', checked: true});
  const filter = el('input', {type: 'search', autocomplete: 'off', spellcheck: 'false'});
  const note = el('p', {class: 'note', id: 'selection-note', hidden: true});
  const starts = profile.windows.map((window) => window.started);
  let selection = null;
  let rows = [];
  let whole = 0;
  const table = dataTable({caption: 'Locks by blocked time', rows, sortBy: 4,
    onSelect: (row) => {
      onRow(row);
      announce(`Details of ${row.name} below`);
    },
    columns: [
      {title: 'Lock', wide: true, value: (row) => row.name, show: rowName},
      {title: 'Kind', value: (row) => row.kind},
      {title: 'By window', numeric: true, picture: true, value: (row) => maximum([
        ...row.windows.values()]), show: (row) => rowSparkline(row)},
      {title: 'Entries', numeric: true, value: (row) => row.entries},
      millisColumn('Blocked ms', (row) => row.nanos),
      {title: 'Share', numeric: true, value: (row) => row.nanos,
        show: (row) => formatShare(row.nanos, whole),
        share: (row) => (whole > 0 ? row.nanos / whole : 0)},
      {title: 'Longest ms', numeric: true, value: (row) => row.longest,
        show: (row) => formatMillis(row.longest) + (row.goesOn ? '+' : '')},
      {title: 'Still', numeric: true, value: (row) => row.still},
    ]});
  const kMostBars = 60;
  const step = Math.max(1, Math.ceil(starts.length / kMostBars));
  const highest = () => Math.max(1, maximum(rows.flatMap((row) => [...row.windows.values()])));
  let scale = 1;
  const rowSparkline = (row) => sparkline(starts.filter((_, index) => index % step === 0)
    .map((_, place) => maximum(starts.slice(place * step, (place + 1) * step)
      .map((start) => row.windows.get(start) ?? 0))), scale);

  const rebuild = () => {
    rows = lockRows(profile, isContention, byClass.checked, selection);
    scale = highest();
    const without = selection ? nanosOfNoLock(profile, selection) : 0;
    whole = sum(rows.map((row) => row.nanos)) + without;
    note.hidden = !selection;
    note.textContent = selection ? `Entries and blocked time are of the selected windows.${without > 0
      ? ` ${formatMillis(without)} ms of them were at other locks: a window has only those with most time.`
      : ''} “Longest” and “Still” are of the complete profile.` : '';
    const wanted = filter.value.toLowerCase();
    table.setRows(rows.filter((row) =>
      [row.name, ...row.locks.map((lock) => lock.field)].join('\n').toLowerCase().includes(wanted)));
  };
  byClass.addEventListener('change', rebuild);
  filter.addEventListener('input', afterTyping(rebuild));
  rebuild();
  return {
    element: panel('Locks',
      el('p', {class: 'note'}, 'Choose a row for the pairs of waiters and owners, and for the locks of ' +
        'a class. “Still” are threads that were blocked when this was written; “+” is the time until ' +
        'then of a block that goes on.'),
      el('div', {class: 'controls'}, field('Filter', filter),
        el('label', {class: 'check'}, byClass, ' Group by class')),
      note, table.element),
    select(newSelection) {
      selection = newSelection;
      rebuild();
    },
    open() {
      const most = rows.reduce((best, row) => (best && best.nanos >= row.nanos ? best : row), null);
      if (most) {
        table.select(most);
      }
    },
  };
}

// The name of a row, with its field or how many locks it has.
function rowName(row) {
  const count = row.locks.length + row.others.length > 1 || row.others.length > 0
    ? [row.locks.length > 0 && plural(row.locks.length, 'lock', 'locks'),
      row.others.length > 0 && 'others'].filter(Boolean).join(' and ') : '';
  const extra = row.field ? shortName(row.field, 2) : count;
  return el('span', {class: 'lock-name'}, javaName(row.name),
    extra && el('span', {class: 'dim', title: row.field}, extra));
}

function rowDetail(profile, row, moment) {
  const locks = [...row.locks, ...row.others];
  const pairs = sitePairs(locks);
  const sampled = sum(pairs.map((pair) => pair.nanos));
  const isOne = locks.length === 1;
  const moments = locks.flatMap((lock) => [lock.first, lock.last]).filter((time) => time !== null);
  const facts = [
    row.field && `Field ${row.field}.`,
    moments.length > 0 && `Blocks that have ended were from ${minMax(moments).map(moment).join(' to ')
    } UTC.`,
    durationsText(locks),
  ].filter(Boolean).join(' ');
  const section = panel(named(row.name), facts !== '' && el('p', {class: 'note'}, facts),
    el('h4', null, 'Who waited for whom'), pairList(profile, pairs, sampled),
    !isOne && [el('h4', null, 'Locks of this class'), memberTable(row)],
    el('p', {class: 'more'}, el('a', {href: '#blockedstacks'}, 'Blocked time as a flame graph'), ' · ',
      el('a', {href: '#pairs'}, 'Who blocks whom at all locks')));
  section.id = 'row-detail';
  return section;
}

// The least and the greatest, of a list of any length.
const minMax = (values) => values.reduce(([least, most], value) =>
  [Math.min(least, value), Math.max(most, value)], [Infinity, -Infinity]);

// "half of the blocks took less than 2.1 ms, 99 % less than 4.2 ms", from the histograms.
function durationsText(locks) {
  const counts = [];
  for (const lock of locks) {
    lock.histogram.forEach((count, i) => { counts[i] = (counts[i] ?? 0) + count; });
  }
  const all = sum(counts);
  if (all === 0) {
    return null;
  }
  const below = (share) => {
    let passed = 0;
    const place = counts.findIndex((count) => (passed += count) >= share * all);
    const [kFirstBit, kLast] = [10, 31];  // the last one has all that are longer
    return place >= kLast ? `at least ${formatNanos(2 ** (kFirstBit + kLast - 1))}`
      : `less than ${formatNanos(2 ** (kFirstBit + place))}`;
  };
  return `Half of these blocks took ${below(0.5)}, 99 % ${below(0.99)}.`;
}

const memberTable = (row) => dataTable({caption: `Locks of ${row.name}`,
  rows: [...row.locks, ...row.others], sortBy: 2, columns: [
    {title: 'Lock', wide: true, value: (lock) => lock.name ?? '(others)',
      show: (lock) => el('span', {class: 'lock-name'}, javaName(lock.name ?? '(others)'),
        lock.field && el('span', {class: 'dim', title: lock.field}, shortName(lock.field, 2)))},
    {title: 'Entries', numeric: true, value: (lock) => lock.entries},
    millisColumn('Blocked ms', totalNanos),
    {title: 'Longest ms', numeric: true, value: longestNanos,
      show: (lock) => formatMillis(longestNanos(lock)) + (hasLongestStill(lock) ? '+' : '')},
    {title: 'Still', numeric: true, value: (lock) => lock.stillBlocked ?? 0},
  ]}).element;

// Waits, which are not contention; those that are idle below a line that opens.
function waitPanel(profile) {
  const table = (caption, rows) => dataTable({caption, rows, sortBy: 3, columns: [
    {title: 'Waited for', wide: true, value: (row) => row.name, show: rowName},
    {title: 'Kind', value: (row) => row.kind},
    {title: 'Waits', numeric: true, value: (row) => row.entries},
    millisColumn('Total ms', (row) => row.nanos),
    {title: 'Longest ms', numeric: true, value: (row) => row.longest,
      show: (row) => formatMillis(row.longest) + (row.goesOn ? '+' : '')},
    {title: 'Still', numeric: true, value: (row) => row.still},
    {title: 'Mostly in', wide: true, value: (row) =>
      sitePairs([...row.locks, ...row.others])[0]?.waiter ?? '',
    show: (row) => javaName(sitePairs([...row.locks, ...row.others])[0]?.waiter ?? '–')},
  ]}).element;
  const waits = lockRows(profile, isWait, true, null);
  const idle = lockRows(profile, isIdleWait, true, null);
  if (waits.length + idle.length === 0) {
    return null;
  }
  return panel('Waits, which are not contention',
    el('p', {class: 'note'}, 'Threads in Object.wait, and at conditions, latches, queues and futures. ' +
      'Most of them have nothing to do.'),
    waits.length > 0 ? table('Waits by time', waits)
      : el('p', {class: 'note'}, 'All waits are idle.'),
    idle.length > 0 && el('details', {id: 'idle', class: 'numbers'},
      el('summary', null, `Idle: ${formatNanos(sum(idle.map((row) => row.nanos)))} of threads of pools ` +
        'without a task, timers, reference queues, cleaners and of the agent’s own'),
      table('Idle waits by time', idle)));
}

function costPanel(profile) {
  const {cost, settings} = profile;
  const length = contentionLength(profile) * kNanosOfMilli;
  const percent = length > 0 ? (100 * cost.processorNanos) / length : 0;
  return panel('What the samples cost',
    el('p', {class: 'note'}, `${formatNanos(cost.processorNanos)} of processor time (${
      percent.toFixed(1)} % of one processor), ${plural(cost.safepoints, 'safepoint', 'safepoints')} ` +
      `(the calls took ${formatNanos(cost.safepointNanos)}), ${
        plural(cost.handshakes, 'handshake', 'handshakes')} (${formatNanos(cost.handshakeNanos)}). ` +
      `The sampler ran ${plural(cost.ticks, 'time', 'times')} and skipped ${
        plural(cost.ticksLeftOut, 'run', 'runs')} to stay within ${settings.budgetPercent} % of one ` +
      'processor. Counting on the program’s own threads adds to that.'));
}
