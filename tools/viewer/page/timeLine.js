// The windows of a contention report as bars over time, with a brush that selects some of them.

// Gives {element, clear}; calls `onSelect` with {from, to} in milliseconds since 1970, which covers
// whole windows (`to` is not part of it), or with null for all.
function brushedTimeLine(windows, momentOf, onSelect) {
  const [width, height, left, right, bottom, top] = [960, 170, 64, 10, 28, 10];
  const from = windows[0].started;
  const to = Math.max(from + 1, maximum(windows.map((window) => window.ended)));
  const x = (time) => left + ((width - left - right) * (time - from)) / (to - from);
  const highest = roundUp(maximum(windows.map((one) => one.blockedNanos / kNanosOfMilli)));
  const y = (millis) => top + (height - bottom - top) * (1 - millis / highest);
  let ends = null;  // the window in which the selection began, and its other end

  const picture = svg('svg', {viewBox: `0 0 ${width} ${height}`, class: 'chart time-line',
    role: 'img', 'aria-label': 'Blocked time by window of the profile'});
  for (const tick of [0, highest / 2, highest]) {
    picture.append(
      svg('line', {class: 'grid', x1: left, x2: width - right, y1: y(tick), y2: y(tick)}),
      svg('text', {x: left - 8, y: y(tick) + 4, 'text-anchor': 'end'}, formatNumber(tick)));
  }
  const brush = svg('rect', {class: 'brush', y: top, height: height - bottom - top, width: 0});
  picture.append(brush);
  const bars = windows.map((window) => {
    const millis = window.blockedNanos / kNanosOfMilli;
    const size = Math.max(x(window.ended) - x(window.started), 1);
    return svg('rect', {class: 'bar', x: x(window.started), width: size > 3 ? size - 1 : size,
      y: millis > 0 ? Math.min(y(millis), y(0) - 1) : y(0),
      height: millis > 0 ? Math.max(y(0) - y(millis), 1) : 0},
    svg('title', null, windowText([window])));
  });
  picture.append(...bars);
  const kLabels = 6;
  for (let i = 0, last = null; i <= kLabels; i++) {
    const time = from + Math.round(((to - from) * i) / kLabels);
    if (momentOf(time) !== last) {
      last = momentOf(time);
      picture.append(svg('text', {x: x(time), y: height - 8,
        'text-anchor': i === 0 ? 'start' : i === kLabels ? 'end' : 'middle'}, last));
    }
  }

  function windowText(some) {
    const nanos = sum(some.map((one) => one.blockedNanos));
    const millis = sum(some.map((one) => one.ended - one.started));
    const threads = millis > 0 ? nanos / kNanosOfMilli / millis : 0;
    return `${momentOf(some[0].started)} to ${momentOf(some.at(-1).ended)} UTC: ${
      formatMillis(nanos)} ms blocked (${threads.toFixed(1)} threads on average), ${
      plural(sum(some.map((one) => one.entries)), 'entry', 'entries')}`;
  }

  const line = el('p', {class: 'selection', role: 'status'});
  const all = el('button', {type: 'button', click: () => choose(null)}, 'Select all');
  const frame = el('div', {class: 'time-frame', tabindex: '0', role: 'application',
    'aria-roledescription': 'time line', 'aria-label': 'Time line of blocked time. Left and right ' +
      'arrow keys select a window, with Shift they select more, Escape selects all.'}, picture);

  function choose(newEnds) {
    ends = newEnds;
    const [first, last] = ends ? [Math.min(...ends), Math.max(...ends)] : [0, windows.length - 1];
    const selected = windows.slice(first, last + 1);
    bars.forEach((bar, index) => bar.classList.toggle('outside', index < first || index > last));
    setAttributes(brush, {x: ends ? x(selected[0].started) : 0,
      width: ends ? Math.max(x(selected.at(-1).ended) - x(selected[0].started), 1) : 0});
    line.textContent = `${ends ? `Selected (${plural(selected.length, 'window', 'windows')})`
      : 'All windows'}: ${windowText(selected)}`;
    all.disabled = !ends;
    onSelect(ends && {from: selected[0].started,
      to: windows[last + 1]?.started ?? selected.at(-1).started + 1});
  }

  // The window at a place on the screen, or the one nearest to it.
  function windowAt(event) {
    const area = picture.getBoundingClientRect();
    const time = from + ((event.clientX - area.left) / area.width * width - left) /
      (width - left - right) * (to - from);
    const distance = (one) => Math.max(one.started - time, time - one.ended, 0);
    return windows.reduce((best, one, index) =>
      (distance(one) < distance(windows[best]) ? index : best), 0);
  }

  let isDragged = false;
  frame.addEventListener('pointerdown', (event) => {
    if (event.button === 0) {
      isDragged = true;
      frame.setPointerCapture(event.pointerId);
      const at = windowAt(event);
      choose(event.shiftKey && ends ? [ends[0], at] : [at, at]);
    }
  });
  frame.addEventListener('pointermove', (event) => {
    if (isDragged) {
      const at = windowAt(event);
      if (at !== ends[1]) {
        choose([ends[0], at]);
      }
    }
  });
  for (const end of ['pointerup', 'pointercancel']) {
    frame.addEventListener(end, () => { isDragged = false; });
  }
  const inRange = (index) => Math.max(0, Math.min(windows.length - 1, index));
  frame.addEventListener('keydown', (event) => {
    const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
    if (event.ctrlKey || event.altKey || event.metaKey || (!step && event.key !== 'Escape')) {
      return;
    }
    event.preventDefault();
    if (!step) {
      choose(null);
    } else if (!ends) {
      choose(step > 0 ? [0, 0] : [windows.length - 1, windows.length - 1]);
    } else {
      const at = inRange(ends[1] + step);
      choose(event.shiftKey ? [ends[0], at] : [at, at]);
    }
  });
  choose(null);
  return {element: el('div', null, frame, el('div', {class: 'controls'}, line, all))};
}
