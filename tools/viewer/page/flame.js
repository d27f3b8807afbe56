// The flame graph of contended stacks on a canvas, with zoom, search, choice of lock and thread, and
// the table of its methods.

const kFlameRow = 19;  // pixels

const flameView = {
  id: 'flame',
  title: 'Flame graph',
  isIn: (report, session) => Boolean(session),

  build(report, session) {
    const lock = select('All locks', session.locks.map((one) => one.name));
    const threads = session.threads.filter((one) => one.entries > 0).map((one) => one.name);
    const thread = select('All threads', threads);
    const fromContended = el('input', {type: 'checkbox'});
    const flame = searchedFlame({methodTitles: ['Contended here', 'In stacks of'],
      amountText: (total) => plural(total, 'entry', 'entries')});
    let isShown = false;

    const rebuild = () => {
      isShown = true;
      const threadName = thread.value === '' ? null : threads[Number(thread.value)];
      const lockIndex = lock.value === '' ? -1 : Number(lock.value);
      flame.setTree(new StackTree(session, stackCounts(session, lockIndex, threadName),
        entriesWithoutStack(session, lockIndex, threadName), fromContended.checked));
    };
    for (const control of [lock, thread, fromContended]) {
      control.addEventListener('change', rebuild);
    }

    return {
      element: el('div', null, panel('Contended entries by stack',
        el('p', {class: 'note'}, 'Each box is a method, as wide as the contended entries of the ' +
          'stacks that go through it. Click a box or press Enter to zoom, Escape to go back; the arrow ' +
          'keys move.'),
        el('div', {class: 'controls'}, field('Lock', lock), field('Thread', thread),
          flame.search,
          el('label', {class: 'check'}, fromContended, ' Contended method first')),
        flame.element)),
      open(argument) {
        if (argument !== '' && session.locks[Number(argument)]) {
          lock.value = argument;
          rebuild();
        } else if (!isShown) {
          rebuild();
        }
        flame.draw();
      },
      redraw: () => flame.draw(),
    };
  },
};

// A flame graph with a search and the table of its methods: gives {search (its controls), element,
// setTree, draw}.
//   methodTitles  the columns of what ends in a method, and of what goes through it
//   amountText    writes an amount, such as "3 entries"
//   amountCell    the same in the table, where it is not the bare number
function searchedFlame({methodTitles, amountText, amountCell = null}) {
  const search = el('input', {type: 'search', autocomplete: 'off', spellcheck: 'false'});
  const matches = el('span', {class: 'count', role: 'status'});
  const graph = flameGraph(amountText);
  let tree = null;
  let methods = [];
  const amountColumn = (title, value) => ({title, numeric: true, value,
    show: amountCell && ((row) => amountCell(value(row)))});
  const table = dataTable({caption: 'Methods of the flame graph', rows: [], sortBy: 1,
    onSelect: (row) => {
      search.value = row.name;
      applySearch();
    },
    columns: [
      {title: 'Method', wide: true, value: (row) => row.name, show: (row) => javaName(row.name)},
      amountColumn(methodTitles[0], (row) => row.contended),
      amountColumn(methodTitles[1], (row) => row.total),
      {title: 'Share', numeric: true, value: (row) => row.total,
        show: (row) => formatShare(row.total, tree.total(tree.root)),
        share: (row) => row.total / tree.total(tree.root)},
    ]});

  const applySearch = () => {
    const wanted = search.value.toLowerCase();
    const found = methods.filter((row) => row.name.toLowerCase().includes(wanted));
    table.setRows(found);
    const flags = new Uint8Array(tree.names.length);
    if (wanted !== '') {
      found.forEach((row) => { flags[row.frame] = 1; });
    }
    graph.highlight(flags);
    const whole = tree.total(tree.root);
    const matched = tree.matching(flags);
    matches.textContent = wanted === '' ? '' : `${plural(found.length, 'method', 'methods')} in ${
      amountText(matched)} (${formatShare(matched, whole) || '0 %'})`;
  };
  search.addEventListener('input', afterTyping(applySearch));

  return {
    search: [field('Search methods', search), matches],
    element: el('div', null, graph.element, el('h4', null, 'Methods'), table.element),
    setTree(newTree) {
      tree = newTree;
      methods = tree.methods();
      graph.setTree(tree);
      applySearch();
    },
    draw: graph.draw,
  };
}

// A choice between everything, whose value is empty, and the names by index.
function select(all, names) {
  return el('select', null, el('option', {value: ''}, all),
    names.map((name, index) => el('option', {value: index}, named(name))));
}

// Gives {element, setTree, highlight, draw}; call draw when the element has become
// visible and when colours have changed. `amountText` writes the amount of a node.
function flameGraph(amountText) {
  const canvas = el('canvas', {class: 'flame'});
  const line = el('p', {class: 'flame-line', id: newId('flame'), 'aria-live': 'polite'});
  const reset = el('button', {type: 'button', click: () => zoom(tree.root)}, 'Zoom out');
  const frame = el('div', {
    class: 'flame-frame', tabindex: '0', role: 'application', 'aria-roledescription': 'flame graph',
    'aria-label': 'Flame graph. Arrow keys move, Enter zooms, Escape zooms out. The table below has ' +
      'the numbers.', 'aria-describedby': line.id,
  }, canvas);
  const element = el('div', null, el('div', {class: 'flame-head'}, line, reset), frame);
  let tree = null;
  let focus = null;  // the node that fills the width
  let current = null;  // the node that the arrow keys have come to
  let flags = new Uint8Array(0);
  let boxes = [];  // by row: {x, width, node}

  const isSame = (a, b) => a && b && a.depth === b.depth && a.first === b.first && a.end === b.end;

  function describe(node) {
    const whole = tree.total(tree.root);
    const total = tree.total(node);
    line.textContent = visibleText(`${named(node.name)}: ${amountText(total)}` +
      (whole > 0 && node !== tree.root ? `, ${formatShare(total, whole)} of all` : ''));
  }

  function setTree(newTree) {
    tree = newTree;
    focus = tree.root;
    current = tree.root;
    flags = new Uint8Array(tree.names.length);
    describe(tree.root);
    reset.disabled = true;
  }

  function highlight(newFlags) {
    flags = newFlags;
    draw();
  }

  function zoom(node) {
    focus = node;
    current = node;
    reset.disabled = node === tree.root;
    describe(node);
    draw();
  }

  // All boxes that are wide enough to be seen: the way from the root to the zoomed node over the
  // whole width, and what is below it.
  function layOut(width) {
    boxes = Array.from({length: tree.depth + 1}, () => []);
    for (let node = focus.parent; node; node = node.parent) {
      boxes[node.depth].push({x: 0, width, node});
    }
    const scale = width / Math.max(tree.total(focus), 1);
    const kLeastWidth = 0.4;
    const waiting = [focus];
    while (waiting.length > 0) {
      const node = waiting.pop();
      boxes[node.depth].push({
        x: (tree.before[node.first] - tree.before[focus.first]) * scale,
        width: tree.total(node) * scale, node,
      });
      waiting.push(...tree.children(node, kLeastWidth / scale));
    }
  }

  function draw() {
    const width = frame.clientWidth;
    if (!tree || width === 0) {
      return;
    }
    layOut(width);
    const height = boxes.length * kFlameRow;
    const ratio = window.devicePixelRatio || 1;
    canvas.width = width * ratio;
    canvas.height = height * ratio;
    canvas.style.height = `${height}px`;
    const context = canvas.getContext('2d');
    context.scale(ratio, ratio);
    context.font = `12px ${getComputedStyle(document.body).fontFamily}`;
    context.textBaseline = 'middle';
    const colours = flameColours();
    for (const box of boxes.flat()) {
      drawBox(context, box, colours);
    }
  }

  function drawBox(context, {x, width, node}, colours) {
    const y = node.depth * kFlameRow;
    const matched = node.frame !== undefined && flags[node.frame] === 1;
    context.globalAlpha = node.depth < focus.depth ? 0.55 : 1;
    context.fillStyle = matched ? colours.match : node === tree.root ? colours.root
      : colours.of(node.name);
    context.fillRect(x, y, Math.max(width - 1, 0.4), kFlameRow - 1);
    const kCharacter = 6.4;
    const room = Math.floor((width - 8) / kCharacter);
    if (room >= 3) {
      const label = node === tree.root ? node.name : shortMethod(node.name);
      context.fillStyle = matched ? colours.matchText : colours.text;
      context.fillText(visibleText(label.length > room ? `${label.slice(0, room - 1)}…` : label),
        x + 4, y + kFlameRow / 2);
    }
    context.globalAlpha = 1;
    if (isSame(node, current) && document.activeElement === frame) {
      context.strokeStyle = colours.text;
      context.lineWidth = 2;
      context.strokeRect(x + 1, y + 1, Math.max(width - 3, 1), kFlameRow - 3);
    }
  }

  function boxAt(event) {
    const area = canvas.getBoundingClientRect();
    const row = boxes[Math.floor((event.clientY - area.top) / kFlameRow)] ?? [];
    const x = event.clientX - area.left;
    return row.find((box) => x >= box.x && x < box.x + Math.max(box.width, 1));
  }

  function move(node) {
    if (node) {
      current = node;
      describe(node);
      draw();
      frame.scrollTop = Math.max(0, node.depth * kFlameRow - frame.clientHeight / 2);
    }
  }

  const drawnChildren = (node) => (boxes[node.depth + 1] ?? []).map((box) => box.node)
    .filter((child) => isSame(child.parent, node));

  function sibling(step) {
    if (!current.parent) {
      return null;
    }
    const all = (boxes[current.depth] ?? []).map((box) => box.node)
      .sort((a, b) => a.first - b.first);
    return all[all.findIndex((node) => isSame(node, current)) + step];
  }

  const keys = {
    ArrowUp: () => move(current.parent),
    ArrowDown: () => move(drawnChildren(current).sort((a, b) => tree.total(b) - tree.total(a))[0]),
    ArrowLeft: () => move(sibling(-1)),
    ArrowRight: () => move(sibling(1)),
    Home: () => move(tree.root),
    Enter: () => zoom(current),
    Escape: () => zoom(focus.parent ?? tree.root),
  };
  frame.addEventListener('keydown', (event) => {
    if (keys[event.key] && !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      keys[event.key]();
    }
  });
  frame.addEventListener('focus', draw);
  frame.addEventListener('blur', draw);
  canvas.addEventListener('mousemove', (event) => {
    const box = boxAt(event);
    canvas.style.cursor = box ? 'pointer' : 'default';
    describe(box ? box.node : focus);
  });
  canvas.addEventListener('mouseleave', () => describe(focus));
  canvas.addEventListener('click', (event) => {
    const box = boxAt(event);
    if (box) {
      zoom(box.node);
    }
  });
  new ResizeObserver(draw).observe(frame);
  return {element, setTree, highlight, draw};
}

// The colours separate the JDK's own frames from all others, whose packages differ in lightness.
function flameColours() {
  const kTints = ['--flame-1', '--flame-2', '--flame-3', '--flame-4'].map(themeColour);
  const jdk = themeColour('--flame-jdk');
  const tints = new Map();
  const tintOf = (package_) => {
    let hash = 0;
    for (let i = 0; i < package_.length; i++) {
      hash = (hash * 31 + package_.charCodeAt(i)) | 0;
    }
    return kTints[Math.abs(hash) % kTints.length];
  };
  return {
    root: themeColour('--flame-root'),
    match: themeColour('--flame-match'),
    matchText: themeColour('--flame-match-text'),
    text: themeColour('--text'),
    of(name) {
      if (/^(java|javax|jdk|sun|com\.sun)\./.test(name)) {
        return jdk;
      }
      const end = methodName(name).lastIndexOf('.');
      const class_ = end < 0 ? name : name.slice(0, end);
      if (!tints.has(class_)) {
        tints.set(class_, tintOf(class_));
      }
      return tints.get(class_);
    },
  };
}
