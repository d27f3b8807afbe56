// The lock table, and of one lock its graph by minute, threads and stacks.

const lockView = {
  id: 'locks',
  title: 'Locks',
  isIn: (report, session) => Boolean(session),

  build(report, session) {
    const highest = Math.max(1, maximum(session.locks.map((lock) => maximum(lock.graph))));
    const rows = session.locks.map((lock, index) => ({...lock, index}));
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
      element: el('div', null, panel(`Locks of session ${session.id} “${session.name}”`,
        el('p', {class: 'note'}, 'A lock is one object: its class and identity hash code. Times are ' +
          'whole seconds, cut off. Choose a lock for its graph, threads and stacks.'),
        table.element), detail),
      open(argument) {
        const row = argument === '' && detail.hasChildNodes() ? null : rows[Number(argument)];
        if (row) {
          table.select(row);
        }
      },
    };
  },
};

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
    minuteFigure(lock),
    el('h4', null, 'Threads'), threadTable(lock),
    el('h4', null, 'Stacks'), stackList(session, index),
    el('p', {class: 'more'}, el('a', {href: `#flame/${index}`}, 'All stacks of this lock as a flame graph')));
  section.id = 'lock-detail';
  return section;
}

function minuteFigure(lock) {
  if (lock.graph.length === 0) {
    return el('p', {class: 'note'}, 'The session was shorter than a minute, so there is no graph.');
  }
  const rows = lock.graph.map((entries, minute) => ({minute: minute + 1, entries}));
  return figure('Contended entries by minute',
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
    {title: 'Thread', wide: true, value: (row) => named(row.name)},
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
