// The lock table, and of one lock its graph by minute, threads and stacks.

const lockView = {
  id: 'locks',
  title: 'Locks',
  isIn: (report, session) => Boolean(session),

  build(report, session) {
    const highest = Math.max(1, maximum(session.locks.map((lock) => maximum(lock.graph))));
    const all = session.locks.map((lock, index) => ({...lock, index}));
    const rows = all.filter((lock) => !isIdleLock(lock));
    const total = session.totals.blockedSeconds;
    const detail = el('div');
    const show = (row) => {
      detail.replaceChildren(lockDetail(session, row.index));
      history.replaceState(null, '', `#locks/${row.index}`);
      announce(`Details of ${row.name} below`);
    };
    const table = filteredTable({
      caption: 'Locks', rows, sortBy: 3, onSelect: show,
      columns: [
        {title: 'Lock', wide: true, value: (row) => row.name, show: (row) => javaName(row.name)},
        {title: 'By minute', value: (row) => maximum(row.graph),
          show: (row) => sparkline(row.graph, highest), numeric: true, picture: true},
        {title: 'Entries', numeric: true, value: (row) => row.entries},
        {title: 'Blocked s', numeric: true, value: (row) => row.blockedSeconds},
        {title: 'Share', numeric: true, value: (row) => row.blockedSeconds,
          show: (row) => formatShare(row.blockedSeconds, total),
          share: (row) => (total > 0 ? row.blockedSeconds / total : 0)},
        {title: 'Waited s', numeric: true, value: (row) => row.waitedSeconds},
        {title: 'Threads', numeric: true, value: (row) => row.threads.length},
      ],
    }, (row) => row.name);
    return {
      element: el('div', null, panel(`Locks of ${sessionTitle(session)}`,
        el('p', {class: 'note'}, 'A lock is one object: its class and identity hash code. Times are ' +
          'whole seconds, cut off. Choose a lock for its graph, threads and stacks.'),
        all.length === 0 && el('p', {class: 'note'}, noLockText(session)),
        table.element, idleLocks(all.filter(isIdleLock))), detail, stacksOfNoLock(session)),
      // Without an argument on the lock with the most blocked time.
      open(argument) {
        const row = argument === '' ? rows.find((one) => one.blockedSeconds > 0)
          : all[Number(argument)];
        if (row && !(argument === '' && detail.hasChildNodes())) {
          table.select(row);
        }
      },
    };
  },
};

const noLockText = (session) => (session.stacksOfNoLock.length > 0
  ? 'No lock is in the report, but threads were blocked by some: their stacks are below.'
  : 'No lock is in the report: nothing was contended, or no detail session was run.');

// Waits of threads that wait for something to do, below a line that opens.
const idleLocks = (locks) => locks.length > 0 && el('details', {id: 'idle-locks', class: 'numbers'},
  el('summary', null, `Idle: ${formatSeconds(sum(locks.map((lock) => lock.waitedSeconds)))} of waits ` +
    'of threads of the VM for references and cleaners, and of the agent’s own'),
  dataTable({caption: 'Idle waits', rows: locks, sortBy: 1, columns: [
    {title: 'Lock', wide: true, value: (row) => row.name, show: (row) => javaName(row.name)},
    {title: 'Waited s', numeric: true, value: (row) => row.waitedSeconds},
    {title: 'Threads', wide: true, value: (row) => row.threads.map((thread) => thread.name).join(', ')},
  ]}).element);

// What is known of threads that were blocked at locks that the report does not have.
function stacksOfNoLock(session) {
  const kShown = 20;
  const stacks = session.stacksOfNoLock;
  if (stacks.length === 0) {
    return null;
  }
  const rest = stacks.length - kShown;
  const section = panel(`Blocked, but at no lock of the report: ${
    plural(stacks.length, 'stack', 'stacks')}`,
  el('p', {class: 'note'}, 'They belong to locks that the summary session did not know, or to threads ' +
    'that did not fit. How often and how long these were blocked is not known.'),
  el('div', {class: 'stacks'}, stacks.slice(0, kShown).map((stack, place) => {
    const names = frameNames(session, stack);
    return el('details', {open: place === 0},
      el('summary', null, el('code', null, shortMethod(names[0] ?? '(no frames)'))),
      el('ol', {class: 'stack'}, names.map((name) => el('li', null, name))));
  })),
  rest > 0 && el('p', {class: 'note'}, `${plural(rest, 'more stack', 'more stacks')}.`));
  section.id = 'stacks-of-no-lock';
  return section;
}

function lockDetail(session, index) {
  const lock = session.locks[index];
  const section = panel(named(lock.name),
    el('dl', {class: 'tiles small'}, [
      ['Contended entries', formatNumber(lock.entries)],
      ['Blocked', formatSeconds(lock.blockedSeconds)],
      ['Waited', formatSeconds(lock.waitedSeconds)],
      ['Threads', formatNumber(lock.threads.length)],
    ].map(([title, value]) =>
      el('div', null, el('dt', null, title), el('dd', {class: 'value'}, value)))),
    minuteFigure(session, lock),
    el('h4', null, 'Threads'), threadTable(lock),
    el('h4', null, 'Stacks'), stackList(session, index),
    el('p', {class: 'more'}, el('a', {href: `#flame/${index}`}, 'All stacks of this lock as a flame graph')));
  section.id = 'lock-detail';
  return section;
}

function minuteFigure(session, lock) {
  if (lock.graph.length === 0) {
    return el('p', {class: 'note'}, 'The session was shorter than a minute, so there is no graph.');
  }
  const rows = lock.graph.map((entries, minute) => ({minute: minute + 1, entries}));
  return figure(session.parts ? 'Contended entries by minute, one session after the other'
    : 'Contended entries by minute',
    minuteChart(lock.graph, `Contended entries by minute on ${lock.name}; the most are ${
      formatNumber(maximum(lock.graph))}`),
    dataTable({caption: `Contended entries by minute on ${lock.name}`, rows, columns: [
      {title: 'Minute', numeric: true, value: (row) => row.minute},
      {title: 'Entries', numeric: true, value: (row) => row.entries},
    ]}).element);
}

function threadTable(lock) {
  const total = sum(lock.threads.map((thread) => thread.entries));
  return dataTable({caption: `Threads on ${lock.name}`, rows: lock.threads, sortBy: 3, columns: [
    {title: 'Thread', wide: true, value: (row) => named(row.name), show: (row) => threadName(row.name)},
    {title: 'Entries', numeric: true, value: (row) => row.entries},
    {title: 'Share', numeric: true, value: (row) => row.entries,
      show: (row) => formatShare(row.entries, total),
      share: (row) => (total > 0 ? row.entries / total : 0)},
    {title: 'Blocked s', numeric: true, value: (row) => row.blockedSeconds},
    {title: 'Waited s', numeric: true, value: (row) => row.waitedSeconds},
    {title: 'Stacks', numeric: true, value: (row) => row.stacks.length},
  ]}).element;
}

function stackList(session, index) {
  const kStacks = 5;
  const stacks = stacksOfLock(session, index);
  const total = sum(stacks.map(([, count]) => count));
  const items = stacks.slice(0, kStacks).map(([stack, count], place) => {
    const names = frameNames(session, stack);
    return el('details', {open: place === 0},
      el('summary', null, el('span', {class: 'amount'}, formatNumber(count)), ' ',
        formatShare(count, total), ' ', el('code', null, shortMethod(names[0] ?? '(no frames)'))),
      el('ol', {class: 'stack'}, names.map((name) => el('li', null, name))));
  });
  const rest = stacks.length - items.length;
  return el('div', {class: 'stacks'}, items,
    stacks.length === 0 && el('p', {class: 'note'}, 'No stack was recorded for this lock.'),
    rest > 0 && el('p', {class: 'note'}, `${plural(rest, 'more stack', 'more stacks')}.`));
}
