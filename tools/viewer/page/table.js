// Tables that sort by any column and hold any number of rows: only the rows in sight are in the
// document.

const kRowHeight = 30;  // pixels; page.css has the same
const kRowsAround = 20;
const kSmallTable = 120;  // up to so many rows all are in the document, for the browser's own search

// dataTable({caption, columns, rows, sortBy, onSelect}) gives {element, setRows, select}.
//   columns   {title, value(row) for sorting and showing, show(row) for a text or an element
//             instead, numeric, wide, picture, kept on narrow screens, share(row) from 0 to 1 for
//             a bar behind the number}
//   sortBy    index of the column that the rows are sorted by at first, numbers descending; without
//             it they stay in their order
//   onSelect  called with the row that is chosen; its first cell is a button then
function dataTable({caption, columns, rows, sortBy = -1, onSelect = null}) {
  let shown = [];
  let chosen = null;
  let sorting = {column: sortBy, descending: sortBy >= 0 && Boolean(columns[sortBy].numeric)};
  const inDocument = new Map();  // row index to its element

  // On a narrow screen a table shows the name and the figure that it is sorted by; the rest on demand.
  const main = sortBy >= 0 ? sortBy : columns.findIndex((column) => column.numeric);
  const isMinor = (index) => index !== 0 && index !== main && !columns[index].kept;

  const body = el('tbody');
  const above = el('tr', {class: 'space', 'aria-hidden': 'true'});
  const below = el('tr', {class: 'space', 'aria-hidden': 'true'});
  const headings = columns.map((column, index) => el('th', {
    scope: 'col',
    class: cellClass(column, index),
  }, el('button', {type: 'button', click: () => sortOn(index)}, column.title)));
  const table = el('table', {class: 'data'},
    el('caption', {class: 'unseen'}, caption),
    el('thead', null, el('tr', {'aria-rowindex': '1'}, headings)), body);
  const all = el('input', {type: 'checkbox', change: () =>
    scroller.classList.toggle('all-columns', all.checked)});
  const scroller = el('div', {
    class: columns.some((column) => column.kept) ? 'scroller names' : 'scroller', tabindex: '0', role: 'region', 'aria-label': caption, scroll: () => draw(),
  }, table);

  function cellClass(column, index) {
    const kind = column.picture ? 'picture' : column.numeric ? 'number' : column.wide ? 'wide' : null;
    return [kind, isMinor(index) && 'minor'].filter(Boolean).join(' ') || null;
  }

  function compare(a, b) {
    const [x, y] = [a, b].map(columns[sorting.column].value);
    const order = typeof x === 'number' ? x - y : textOrder.compare(x ?? '', y ?? '');
    return sorting.descending ? -order : order;
  }

  function sortOn(index) {
    const column = columns[index];
    sorting = sorting.column === index
      ? {column: index, descending: !sorting.descending}
      : {column: index, descending: Boolean(column.numeric)};
    refresh();
    announce(`Sorted by ${column.title}, ${sorting.descending ? 'descending' : 'ascending'}`);
  }

  function cell(column, row, index) {
    const value = column.show ? column.show(row) : column.value(row);
    const content = typeof value === 'number' ? formatNumber(value) : value;
    const attributes = {class: cellClass(column, index)};
    if (typeof content === 'string') {
      attributes.title = content;
    }
    const element = index === 0 && onSelect
      ? el('td', attributes, el('button', {type: 'button', class: 'link'}, content))
      : el('td', attributes, content);
    if (column.share) {
      element.classList.add('share');
      element.style.setProperty('--share', `${100 * column.share(row)}%`);
    }
    return element;
  }

  function rowElement(index) {
    const row = shown[index];
    const element = el('tr', {'aria-rowindex': String(index + 2)},
      columns.map((column, place) => cell(column, row, place)));
    element.classList.toggle('odd', index % 2 === 1);
    if (onSelect) {
      element.addEventListener('click', () => select(row));
      mark(element, row);
    }
    return element;
  }

  function mark(element, row) {
    if (row === chosen) {
      element.setAttribute('aria-current', 'true');
    } else {
      element.removeAttribute('aria-current');
    }
  }

  function range() {
    if (shown.length <= kSmallTable) {
      return [0, shown.length];
    }
    const first = Math.floor(scroller.scrollTop / kRowHeight) - kRowsAround;
    const count = Math.ceil((scroller.clientHeight || 600) / kRowHeight) + 2 * kRowsAround;
    const from = Math.max(0, Math.min(first, shown.length - count));
    return [from, Math.min(shown.length, from + count)];
  }

  // Rows that stay in sight keep their elements, and with them the focus.
  function draw() {
    const [from, to] = range();
    for (const [index, element] of inDocument) {
      if (index < from || index >= to) {
        element.remove();
        inDocument.delete(index);
      }
    }
    let before = above;
    for (let index = from; index < to; index++) {
      if (!inDocument.has(index)) {
        inDocument.set(index, rowElement(index));
        before.after(inDocument.get(index));
      }
      before = inDocument.get(index);
    }
    above.style.height = `${from * kRowHeight}px`;
    below.style.height = `${(shown.length - to) * kRowHeight}px`;
  }

  function refresh() {
    if (sorting.column >= 0) {
      shown.sort(compare);
    }
    headings.forEach((heading, index) => {
      heading.setAttribute('aria-sort', index !== sorting.column ? 'none'
        : sorting.descending ? 'descending' : 'ascending');
    });
    table.setAttribute('aria-rowcount', String(shown.length + 1));
    inDocument.clear();
    body.replaceChildren(above, below);
    draw();
  }

  function setRows(newRows) {
    shown = [...newRows];
    scroller.scrollTop = 0;
    scroller.classList.toggle('empty', shown.length === 0);
    refresh();
  }

  // Chooses a row as if it were clicked.
  function select(row) {
    chosen = row;
    for (const [index, element] of inDocument) {
      mark(element, shown[index]);
    }
    onSelect(row);
  }

  setRows(rows);
  const element = columns.some((column, index) => isMinor(index))
    ? el('div', null, el('label', {class: 'narrow check'}, all, ' All columns'), scroller) : scroller;
  return {element, setRows, select};
}

// A filter field above a table: `textOf(row)` is searched for what is typed, without regard to case.
function filteredTable(options, textOf) {
  const table = dataTable(options);
  const kFewRows = 8;
  if (options.rows.length < kFewRows) {
    return table;
  }
  const input = el('input', {type: 'search', autocomplete: 'off', spellcheck: 'false'});
  const count = el('span', {class: 'count', role: 'status'});
  const apply = () => {
    const wanted = input.value.toLowerCase();
    const rows = options.rows.filter((row) => textOf(row).toLowerCase().includes(wanted));
    table.setRows(rows);
    count.textContent = wanted === '' ? '' : `${formatNumber(rows.length)} of ${
      formatNumber(options.rows.length)}`;
  };
  input.addEventListener('input', afterTyping(apply));
  return {
    ...table,
    element: el('div', null, el('div', {class: 'controls'}, field('Filter', input), count),
      table.element),
  };
}
