// Exceptions: groups by class and place with what the agent has counted, their records with full-text
// search, and one record as a tree of frames and values.

const exceptionView = {
  id: 'exceptions',
  title: 'Exceptions',
  isIn: (report) => Boolean(report.exceptions),

  build({exceptions}) {
    const {groups, records} = exceptions;
    const search = el('input', {type: 'search', autocomplete: 'off', spellcheck: 'false'});
    const count = el('span', {class: 'count', role: 'status'});
    const allGroups = el('button', {type: 'button', hidden: true, click: () => chooseGroup(null)},
      'Records of all groups');
    const heading = el('p', {class: 'note'});
    const detail = el('div');
    const rows = records.map((record, index) => ({...record, index}));
    const timeFormat = timeFormatFor([...records.map((record) => record.time),
      ...groups.flatMap((one) => [one.first, one.last])]);
    const secondsOf = (time) => timeFormat(time).replace(/\.\d+$/, '');
    let texts = null;  // of all records, made at the first search
    let group = null;

    const recordTable = dataTable({caption: 'Exception records', rows: [], sortBy: 0,
      onSelect: (row) => {
        detail.replaceChildren(recordDetail(row));
        announce(`Record of ${row.class} below`);
      },
      columns: [
        {title: 'Time', value: (row) => row.time ?? '', show: (row) => timeFormat(row.time)},
        {title: 'Exception', wide: true, kept: true, value: (row) => row.class,
          show: (row) => javaName(row.class)},
        {title: 'Message', wide: true, value: (row) => row.message ?? ''},
        {title: 'Thread', value: (row) => named(row.thread ?? '(not known)'),
          show: (row) => threadName(row.thread ?? '(not known)')},
        {title: 'Caught', value: (row) => caughtText(row.caught)},
      ]});
    const {counts} = exceptions;
    const whole = counts ? exceptions.thrown : records.length;
    const mostOf = (row) => knownCount(row) / Math.max(whole, 1);
    const countColumn = (title, count, more) =>
      ({title, numeric: true, value: (row) => count(row) ?? -1,
        show: (row) => numberOrNone(count(row)), ...more});
    const uncaughtOfRecords = (row) =>
      (row.recordsCaught + row.recordsUncaught > 0 ? row.recordsUncaught : null);
    const groupTable = dataTable({caption: 'Exceptions by class and site', rows: groups, sortBy: 1,
      onSelect: (row) => {
        chooseGroup(row);
        if (row.records.length > 0) {
          recordTable.select(rows[row.records[0]]);
        } else {
          detail.replaceChildren(noRecordDetail(row));
        }
      },
      columns: [
        {title: 'Exception', wide: true, value: (row) => row.class,
          show: (row) => javaName(row.class)},
        counts && countColumn(counts.mode === 'made' ? 'Made' : 'Thrown', (row) => row.thrown,
          {share: mostOf}),
        {title: 'Records', numeric: true, value: (row) => row.count, share: counts ? null : mostOf},
        counts ? countColumn('Uncaught', (row) => row.uncaught)
          : countColumn('Uncaught', uncaughtOfRecords),
        counts?.total.rethrown > 0 && countColumn('Again', (row) => row.rethrown),
        {title: 'Thrown in', wide: true, value: placeOfGroup,
          show: (row) => javaName(placeOfGroup(row))},
        {title: 'Message', wide: true, value: (row) => records[row.records[0]]?.message ?? ''},
        {title: 'First', value: (row) => row.first ?? '', show: (row) => secondsOf(row.first)},
        {title: 'Last', value: (row) => row.last ?? '', show: (row) => secondsOf(row.last)},
      ].filter(Boolean)});

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
      allGroups.hidden = group === null;
      heading.textContent = visibleText(group === null ? 'Records of all groups.'
        : `Records of ${group.class} at ${placeOfGroup(group)}.`);
      apply();
    };
    search.addEventListener('input', afterTyping(apply));
    chooseGroup(null);

    const losses = exceptions.losses.length > 0 && el('div', {class: 'note problems'},
      el('p', null, 'Incomplete:'),
      el('ul', null, exceptions.losses.map((loss) => el('li', null, `${loss}.`))));
    const notes = [...countNotes(exceptions), exceptions.agent && agentText(exceptions.agent)];
    return {
      element: el('div', null, panel('By class and site',
        notes.filter(Boolean).map((note) => el('p', {class: 'note'}, note)), losses,
        el('div', {class: 'groups'}, groupTable.element)),
        panel('Records', heading, el('div', {class: 'controls'},
          field('Search all texts and values', search), count, allGroups), recordTable.element), detail),
      open(argument) {
        if (argument !== '' && groups[Number(argument)]) {
          groupTable.select(groups[Number(argument)]);
        }
      },
    };
  },
};

const caughtText = (caught) => (caught === null ? 'not known' : caught ? 'caught' : 'uncaught');

// What the counts are of, and what they do not have.
function countNotes({counts, groups, records, thrown}) {
  const ofRecords = plural(records.length, 'record', 'records');
  if (!counts) {
    return ['Only records are known of each class and site: the agent’s counts ' +
      '(exception-counts.json) are missing. At most a few of a class are recorded in a minute, ' +
      'so there may have been more exceptions.'];
  }
  const {total} = counts;
  const byClass = sum(counts.classes.map((one) => one.thrown));
  return [
    `${ofRecords} of ${formatNumber(thrown)} ${countedWord(counts)}${total.caught === null ? ''
      : ` (${formatNumber(total.caught)} caught, ${formatNumber(total.uncaught)} not caught)`}${
      total.rethrown > 0 ? `, ${formatNumber(total.rethrown)} of them not for the first time` : ''}.`,
    byClass + counts.other.thrown > 0 && `Beyond the first ${formatNumber(counts.maxSites)} pairs ` +
      `of class and site, ${plural(byClass, 'exception is', 'exceptions are')} counted by class, ` +
      `and ${formatNumber(counts.other.thrown)} without their class.`,
    counts.runs > 1 && `The counts are the sum of ${formatNumber(counts.runs)} runs.`,
    counts.note && `Note: ${counts.note}.`,
    groups.some((group) => group.indirect && group.thrown > group.count) && 'Where the JDK throws, ' +
      'the place is the one that called it, by the records; those without a record may have come ' +
      'from elsewhere.',
  ];
}

const noRecordDetail = (group) => panel(named(group.class),
  el('p', {class: 'note'}, 'There is no record of these exceptions: they were counted only.'));

// What became of all exceptions while capture was on.
function agentText(counts) {
  const failures = Object.entries(counts.failed).filter(([, count]) => count > 0);
  const failed = sum(failures.map(([, count]) => count));
  const known = counts.filtered + counts.blackListed + counts.overRate + counts.delivered +
    counts.rethrown + failed;
  const parts = [
    [counts.overRate, 'over the rate'],
    [counts.blackListed, 'of excluded classes'],
    [counts.filtered, 'thrown in packages that are not recorded'],
    [failed, `without a record (${
      failures.map(([reason, count]) => `${reason} ${formatNumber(count)}`).join(', ')})`],
    [counts.delivered, 'handed over as records'],
    [counts.rethrown, 'thrown again, with a record of the first time only'],
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
    el('ol', {class: 'frames'}, frameItems(record.frames)),
    record.frames.some(hasNotRead) && el('p', {class: 'note'}, '… is not read (depth limit).'),
    el('p', {class: 'note'}, 'The record as the agent wrote it is not in this page: ',
      el('code', null, `twreport --show ${record.index + 1} --raw`), ' prints it.'));
}

// The frames, those of the JDK folded where they are next to each other; the first of the others is
// open.
function frameItems(frames) {
  const items = [];
  const first = frames.findIndex((frame) => !isOfJdk(frame.method));
  for (let i = 0; i < frames.length;) {
    let end = i;
    while (end < frames.length && isOfJdk(frames[end].method)) {
      end++;
    }
    if (end === i) {
      items.push(el('li', null, frameDetail(frames[i], i === first)));
      i++;
    } else {
      items.push(el('li', {class: 'folded'}, el('details', null,
        el('summary', null, `${plural(end - i, 'frame', 'frames')} of the JDK`),
        el('ol', {class: 'frames'}, frames.slice(i, end).map((frame) =>
          el('li', null, frameDetail(frame, false)))))));
      i = end;
    }
  }
  return items;
}

const isNotRead = (value) => Boolean(value.notRead || value.fields?.some(isNotRead));
const hasNotRead = (frame) => kValueKinds.some((kind) => frame[kind.member].some(isNotRead));

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

// Static fields and constants are the same wherever the class is met: they are folded.
function valueList(values) {
  const statics = values.filter((value) => value.static);
  const items = values.filter((value) => !value.static).map((value) =>
    el('li', null, valueDetail(value)));
  return el('ul', {class: 'tree'}, items, statics.length > 0 && el('li', null,
    el('details', {class: 'statics'}, el('summary', null, plural(statics.length, 'static field', 'static fields')),
      el('ul', {class: 'tree'}, statics.map((value) => el('li', null, valueDetail(value)))))));
}

// What stands for a value that the record does not have; null when it has it.
function missingValue(value) {
  return value.redacted ? `<redacted:${value.redacted}>` : value.notRead ? '…'
    : value.notAvailable ? 'not available' : value.value !== null ? null
      : value.uncertain ? 'null (uncertain)' : 'null';
}

// Objects open to show their fields; all other values are one line.
function valueDetail(value) {
  // A record does not have the type of what is redacted.
  const title = [el('span', {class: 'name'}, named(value.name)),
    ...(value.redacted ? [] : [' ', el('span', {class: 'type'}, value.type)])];
  if (value.fields && !value.redacted && !value.notRead) {
    return value.fields.length === 0 ? el('span', null, title, ' {}')
      : el('details', {open: true}, el('summary', null, title), valueList(value.fields));
  }
  const isText = ['String', 'StringBuilder', 'char'].includes(value.type);
  const missing = missingValue(value);
  const shown = missing ?? (isText ? `“${value.value}”` : value.value);
  return el('span', null, title, ' = ', el('code', {class: missing === null ? null : 'dim',
    title: value.notRead ? 'not read (depth limit)' : null}, shown));
}
