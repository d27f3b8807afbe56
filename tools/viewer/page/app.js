// The page: reads the report that it holds, and shows one of its views at a time, named by the
// address's part after "#": the view's id, and after a slash what to show in it.

// The report of one run, or a comparison, which has one view.
const kViews = [comparisonView, overviewView, contentionView, blockedFlameView, pairView, lockView,
  flameView, blockerView, exceptionView, memoryView];

class Page {
  constructor(report) {
    this.report = report;
    if (report.exceptions) {
      unfoldRecords(report.exceptions);
    }
    (report.allocations ?? []).forEach(unfoldStacks);
    this.sessions = report.locks ?? [];
    if (this.sessions.length > 1) {
      this.sessions = [mergedSession(this.sessions), ...this.sessions];
    }
    this.session = this.sessions[0] ?? null;
    this.profile = mostContended(report.contention ?? []);
    this.built = new Map();  // view id to what its build() gave
    this.views = kViews.filter((view) => view.isIn(report, this.session, this.profile));
    this.content = document.getElementById('content');
    this.showTitle();
    this.showSessions();
    document.getElementById('views').append(...this.views.map((view) =>
      el('li', null, el('a', {href: `#${view.id}`}, view.title))));
    window.addEventListener('hashchange', () => this.open(true));
  }

  showTitle() {
    const {run, tables} = this.report;
    if (tables) {
      this.setTitle('Comparison of two runs', plural(tables.length, 'table', 'tables'));
      return;
    }
    const name = run?.command || this.session?.name;
    this.setTitle(name ? `Profiling report: ${name}` : 'Profiling report', [
      run?.started && `started ${formatTime(run.started)}`,
      run?.pid !== undefined && run.pid !== null && `process ${run.pid}`,
      run?.java && `Java ${run.java}`,
      plural(this.report.inputs.length, 'file', 'files'),
    ].filter(Boolean).join(' · '));
  }

  setTitle(title, subtitle) {
    document.title = visibleText(title);
    document.getElementById('title').textContent = visibleText(title);
    document.getElementById('subtitle').textContent = visibleText(subtitle);
  }

  showSessions() {
    this.showChoice('session', this.sessions,
      (session) => (session.parts ? 'All sessions' : `${session.id}: ${session.name}`));
    this.showChoice('profile', this.report.contention ?? [],
      (profile) => `${profile.source}, ${momentFormatFor([])(profile.started)}`);
  }

  // The choice among what there is more than one of, for the member of this name.
  showChoice(member, all, nameOf) {
    if (all.length < 2) {
      return;
    }
    const choice = document.getElementById(member);
    choice.append(...all.map((one, index) =>
      el('option', {value: index, selected: one === this[member]}, nameOf(one))));
    choice.addEventListener('change', () => {
      this[member] = all[Number(choice.value)];
      this.built.clear();
      history.replaceState(null, '', `#${this.view.id}`);
      this.open(false);
    });
    document.getElementById(`${member}-switch`).hidden = false;
  }

  // What the page opens on: the most blocked time, if there is any.
  firstView() {
    const {profile, session} = this;
    const blockedSeconds = session?.totals.blockedSeconds ?? 0;
    if (profile && hasContention(profile) &&
        profile.totals.totalNanos >= blockedSeconds * kNanosOfSecond) {
      return contentionView;
    }
    if (blockedSeconds > 0 || session?.stacksOfNoLock.length > 0) {
      return lockView;
    }
    const hasOthers = profile || session || this.report.exceptions;
    return this.report.allocations?.length > 0 && !hasOthers ? memoryView : this.views[0];
  }

  // Shows the view that the address names; the focus goes to it when the reader went there.
  open(byReader) {
    const [id, argument = ''] = location.hash.slice(1).split('/');
    if (id === 'content') {
      return;  // the link that skips the navigation
    }
    const view = this.views.find((one) => one.id === id) ?? this.firstView();
    this.view = view;
    if (!this.built.has(view.id)) {
      this.built.set(view.id, view.build(this.report, this.session, this.profile));
    }
    const built = this.built.get(view.id);
    if (this.current !== built) {
      this.content.replaceChildren(...[el('h2', {class: 'unseen'}, view.title),
        view !== overviewView && !this.report.tables && problemNote(this.report),
        built.element].filter(Boolean));
      this.current = built;
    }
    for (const link of document.querySelectorAll('#views a')) {
      const isHere = link.getAttribute('href') === `#${view.id}`;
      link.toggleAttribute('aria-current', isHere);
      if (isHere) {
        link.setAttribute('aria-current', 'page');
      }
    }
    built.open?.(argument);
    if (byReader) {
      window.scrollTo(0, 0);
      this.content.focus({preventScroll: true});
    }
  }
}

// The choice of colours is kept where the browser lets a file keep something.
function startTheme(redraw) {
  const kKey = 'colours';
  const choice = document.getElementById('theme');
  const apply = () => {
    document.documentElement.dataset.theme = choice.value;
    redraw();
  };
  try {
    choice.value = localStorage.getItem(kKey) ?? 'auto';
  } catch {
    // Not kept then.
  }
  choice.addEventListener('change', () => {
    apply();
    try {
      localStorage.setItem(kKey, choice.value);
    } catch {
      // Not kept then.
    }
  });
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', redraw);
  apply();
}

function start() {
  let page = null;
  startTheme(() => page?.current?.redraw?.());
  try {
    page = new Page(JSON.parse(document.getElementById('report').textContent));
    page.open(false);
  } catch (problem) {
    // A report that is too large for the browser, or a browser that is too old for the page.
    document.getElementById('subtitle').textContent =
      visibleText(`The report cannot be shown: ${problem.message}`);
    throw problem;
  }
}

// The frame of the page is painted before the report, which may be large, is read.
requestAnimationFrame(() => setTimeout(start));
