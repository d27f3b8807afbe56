// Exceptions: groups by class and site, their records with full-text search, and one record as a
// tree of frames and values.

const exceptionView = {
  id: 'exceptions',
  title: 'Exceptions',
  isIn: (report) => Boolean(report.exceptions),

  build({exceptions}) {
    const {groups, records} = exceptions;
    const search = el('input', {type: 'search', autocomplete: 'off', spellcheck: 'false'});
    const count = el('span', {class: 'count', role: 'status'});
    const all = el('button', {type: 'button', hidden: true, click: () => chooseGroup(null)},
      'Records of all groups');
    const heading = el('p', {class: 'note'});
    const detail = el('div');
    const rows = records.map((record, index) => ({...record, index}));
    const timeFormat = timeFormatFor(records.map((record) => record.time));
    let texts = null;  // of all records, made at the first search
    let group = null;

    const recordTable = dataTable({caption: 'Exception records', rows: [], sortBy: 0,
      onSelect: (row) => {
        detail.replaceChildren(recordDetail(row));
        announce(`Record of ${row.class} below`);
      },
      columns: [
        {title: 'Time', value: (row) => row.time ?? '', show: (row) => timeFormat(row.time)},
        {title: 'Exception', wide: true, value: (row) => row.class,
          show: (row) => javaName(row.class)},
        {title: 'Message', wide: true, value: (row) => row.message ?? ''},
        {title: 'Thread', value: (row) => named(row.thread ?? '(not known)')},
        {title: 'Caught', value: (row) => caughtText(row.caught)},
      ]});
    const groupTable = dataTable({caption: 'Exceptions by class and site', rows: groups, sortBy: 2,
      onSelect: (row) => {
        chooseGroup(row);
        recordTable.select(rows[row.records[0]]);
      },
      columns: [
        {title: 'Exception', wide: true, value: (row) => row.class,
          show: (row) => javaName(row.class)},
        {title: 'Site', wide: true, value: (row) => row.site ?? '(no frames)',
          show: (row) => javaName(row.site ?? '(no frames)')},
        {title: 'Records', numeric: true, value: (row) => row.count,
          share: (row) => row.count / Math.max(records.length, 1)},
        {title: 'Uncaught', numeric: true,
          value: (row) => (row.caught + row.uncaught > 0 ? row.uncaught : -1),
          show: (row) => numberOrNone(row.caught + row.uncaught > 0 ? row.uncaught : null)},
        {title: 'First', value: (row) => row.first ?? '', show: (row) => timeFormat(row.first)},
        {title: 'Last', value: (row) => row.last ?? '', show: (row) => timeFormat(row.last)},
      ]});

    const apply = () => {
      const wanted = search.value.toLowerCase();
      let found = group ? group.records.map((index) => rows[index]) : rows;
      if (wanted !== '') {
        texts ??= records.map(searchText);
        found = found.filter((row) => texts[row.index].includes(wanted));
      }
      recordTable.setRows(found);
      count.textContent = `${formatNumber(found.length)} of ${
        plural(records.length, 'record', 'records')}`;
    };
    const chooseGroup = (chosen) => {
      group = chosen;
      all.hidden = group === null;
      heading.textContent = visibleText(group === null ? 'Records of all groups.'
        : `Records of ${group.class} at ${group.site ?? '(no frames)'}.`);
      apply();
    };
    search.addEventListener('input', afterTyping(apply));
    chooseGroup(null);

    const losses = exceptions.losses.length > 0 && el('div', {class: 'note problems'},
      el('p', null, 'Incomplete:'),
      el('ul', null, exceptions.losses.map((loss) => el('li', null, `${loss}.`))));
    const seen = exceptions.agent && el('p', {class: 'note'}, agentText(exceptions.agent));
    return {
      element: el('div', null, panel('By class and site', seen, losses, groupTable.element),
        panel('Records', heading, el('div', {class: 'controls'},
          field('Search all texts and values', search), count, all), recordTable.element), detail),
      open(argument) {
        if (argument !== '' && groups[Number(argument)]) {
          groupTable.select(groups[Number(argument)]);
        }
      },
    };
  },
};

const caughtText = (caught) => (caught === null ? 'not known' : caught ? 'caught' : 'uncaught');

// What became of all exceptions while capture was on.
function agentText(counts) {
  const failures = Object.entries(counts.failed).filter(([, count]) => count > 0);
  const failed = sum(failures.map(([, count]) => count));
  const known = counts.filtered + counts.blackListed + counts.overRate + counts.delivered + failed;
  const parts = [
    [counts.overRate, 'over the rate'],
    [counts.blackListed, 'of excluded classes'],
    [counts.filtered, 'thrown in packages that are not recorded'],
    [failed, `without a record (${
      failures.map(([reason, count]) => `${reason} ${formatNumber(count)}`).join(', ')})`],
    [counts.delivered, 'handed over as records'],
    [counts.seen - known, 'under way when capture ended'],
  ].filter(([count]) => count > 0).map(([count, what]) => `${formatNumber(count)} ${what}`);
  return `The agent saw ${plural(counts.seen, 'exception', 'exceptions')}${
    parts.length > 0 ? `: ${parts.join(', ')}` : ''}.${
    counts.cut > 0 ? ` Records that were cut: ${formatNumber(counts.cut)}.` : ''}`;
}

function recordDetail(record) {
  const ambiguous = record.ambiguous.length > 0 && el('div', {class: 'problems'},
    el('p', null, 'The record can be read in more than one way:'),
    el('ul', null, record.ambiguous.map((reason) => el('li', null, reason))));
  return panel(named(record.class),
    factList([
      ['Message', record.message ?? '(none)'], ['Time', formatTime(record.time)],
      ['Thread', record.thread ?? '(not known)'], ['Caught', caughtText(record.caught)],
    ]),
    record.cut && el('p', {class: 'problems'},
      'The record was too long and was cut: values or frames are missing.'),
    ambiguous,
    record.frames.length === 0 && el('p', {class: 'note'}, 'The record has no frames.'),
    el('ol', {class: 'frames'}, record.frames.map((frame, index) =>
      el('li', null, frameDetail(frame, index === 0)))),
    record.raw && el('details', null, el('summary', null, 'The record as the agent wrote it'),
      el('pre', null, record.raw)));
}

function frameDetail(frame, open) {
  const line = frame.line >= 0 ? `:${frame.line}` : '';
  const title = [el('code', null, frame.method),
    frame.file !== null && el('span', {class: 'dim'}, ` ${frame.file}${line}`)];
  const kinds = kValueKinds.filter((kind) => frame[kind.member].length > 0);
  if (kinds.length === 0) {
    return el('p', {class: 'bare'}, title);
  }
  return el('details', {open}, el('summary', null, title), kinds.map((kind) =>
    el('div', {class: 'values'}, el('h4', null, kind.title), valueList(frame[kind.member]))));
}

const valueList = (values) =>
  el('ul', {class: 'tree'}, values.map((value) => el('li', null, valueDetail(value))));

// Objects open to show their fields; all other values are one line.
function valueDetail(value) {
  const title = [el('span', {class: 'name'}, named(value.name)), ' ',
    el('span', {class: 'type'}, value.type)];
  if (value.fields) {
    return value.fields.length === 0 ? el('span', null, title, ' {}')
      : el('details', {open: true}, el('summary', null, title), valueList(value.fields));
  }
  const isText = ['String', 'StringBuilder', 'char'].includes(value.type);
  const none = value.uncertain ? 'null (uncertain)' : 'null';
  const shown = value.value === null ? none : isText ? `“${value.value}”` : value.value;
  return el('span', null, title, ' = ', el('code', {class: value.value === null ? 'dim' : null}, shown));
}
