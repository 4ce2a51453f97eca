// The fleet page: a live view of every box that kendrivex-fleet knows, its
// latest events, and commands run on the boxes with each box's answer.
//
// Data comes from kendrivex-fleet's event stream (api/stream): a snapshot,
// then batches of changed rows and new events, a link message when the
// fleet's broker link changes, and a tick every second. Messages are only
// collected as they arrive; the page applies them once per animation frame,
// so that a busy fleet costs one DOM update a frame however many messages
// came. Rows are kept by box and only the cells that changed are written; the
// event log reuses its at most 500 line nodes.
//
// Everything that comes from a box (IDs, event texts, replies) is put on the
// page with textContent or as an attribute value, never as markup.
'use strict';

(() => {
  // The events the log keeps, as the stream's snapshot does.
  const kMaxEvents = 500;
  // Ticks come every second: after this long without any message the page
  // counts its link to kendrivex-fleet as lost (shown within 2 s).
  const kSilenceMs = 1600;
  const kSilenceCheckMs = 200;
  // After this long without a message the stream is opened again: a link
  // that died without an error (a vanished network) is never reported by
  // the browser.
  const kReopenMs = 5000;
  // Waits before the stream is opened again after an error, growing to the
  // last one while the server stays away.
  const kRetryMs = [500, 1000, 2000, 3000];
  const kDefaultTimeoutMs = 5000;

  const $ = (id) => document.getElementById(id);
  const collator = new Intl.Collator(undefined, {numeric: true, sensitivity: 'base'});

  // ---- Formatting -------------------------------------------------------

  const pad = (n, width = 2) => String(n).padStart(width, '0');

  // Today's date here, looked up again once a second at most: a thousand
  // times are shown at once.
  const today = {at: -Infinity, year: 0, month: 0, date: 0};
  function localDay() {
    const now = Date.now();
    if (now - today.at > 1000) {
      const moment = new Date(now);
      Object.assign(today, {at: now, year: moment.getFullYear(), month: moment.getMonth(), date: moment.getDate()});
    }
    return today;
  }

  // A time as the box sent it (ISO 8601, UTC), shown in the page's local
  // time: the time of day, with the date when it is not today. Text that is
  // not a time is shown as it came.
  function shownTime(iso) {
    if (typeof iso !== 'string') return '';
    const moment = new Date(iso);
    if (Number.isNaN(moment.getTime())) return iso;
    const clock = `${pad(moment.getHours())}:${pad(moment.getMinutes())}:${pad(moment.getSeconds())}.` +
        pad(moment.getMilliseconds(), 3);
    const today = localDay();
    if (moment.getFullYear() === today.year && moment.getMonth() === today.month && moment.getDate() === today.date) {
      return clock;
    }
    return `${moment.getFullYear()}-${pad(moment.getMonth() + 1)}-${pad(moment.getDate())} ${clock}`;
  }

  const eventText = (event) => (Array.isArray(event.args) ? event.args.map(String).join(' ') : '');
  const eventNumber = (event) => (event.id === undefined || event.id === null ? '' : String(event.id));

  function setTime(node, iso, unknownText) {
    setText(node, iso ? shownTime(iso) : unknownText);
    const title = iso ? String(iso) : '';
    if (node.getAttribute('datetime') !== title) {
      if (title) {
        node.setAttribute('datetime', title);
        node.title = title;
      } else {
        node.removeAttribute('datetime');
        node.removeAttribute('title');
      }
    }
  }

  // Changes the node's text in its one text node where it has one, rather
  // than replacing that node: a thousand rows change every second.
  function setText(node, text) {
    const only = node.firstChild;
    if (only !== null && only === node.lastChild && only.nodeType === Node.TEXT_NODE) {
      if (only.data !== text) only.data = text;
    } else if (node.textContent !== text) {
      node.textContent = text;
    }
  }

  function setAttr(node, name, value) {
    if (node.getAttribute(name) !== value) node.setAttribute(name, value);
  }

  // ---- State ------------------------------------------------------------

  // Every box by ID: its last known data and its table row.
  const rows = new Map();
  // The latest events, oldest first, at most kMaxEvents.
  let events = [];

  // What came from the stream since the last frame: a snapshot replaces
  // everything before it; rows are kept by box (the newest wins), events
  // in order (the newest kMaxEvents).
  const pending = {snapshot: null, rows: new Map(), events: [], broker: null, scheduled: false};

  const link = {
    source: null,
    live: false,      // a snapshot came on the open stream and messages keep coming
    everLive: false,  // live at least once since the page was loaded
    broker: 'down',   // kendrivex-fleet's own link to the broker, as it last said
    heardAt: 0,       // performance.now() of the last message
    retry: 0,         // index into kRetryMs
    timer: 0,
  };

  const view = {
    sortKey: 'box',
    sortDir: 1,
    filter: '',
    orderDirty: true,
    countsDirty: true,
    idsDirty: true,
    idsLater: false,  // showIds is waiting for a quiet moment
    logPaused: false,
    logMissed: 0,
    logBox: '',
    logNumber: '',
  };

  // ---- The stream -------------------------------------------------------

  function parse(message) {
    try {
      return JSON.parse(message.data);
    } catch (error) {
      return undefined;
    }
  }

  function schedule() {
    if (pending.scheduled) return;
    pending.scheduled = true;
    requestAnimationFrame(flush);
  }

  function heard(broker) {
    link.heardAt = performance.now();
    if (broker === 'up' || broker === 'down') pending.broker = broker;
  }

  function queueRows(list) {
    if (!Array.isArray(list)) return;
    for (const row of list) {
      if (row && typeof row.box === 'string') pending.rows.set(row.box, row);
    }
  }

  function queueEvents(list) {
    if (!Array.isArray(list)) return;
    for (const event of list) {
      if (event && typeof event.box === 'string') pending.events.push(event);
    }
    if (pending.events.length > kMaxEvents) pending.events.splice(0, pending.events.length - kMaxEvents);
  }

  function open() {
    clearTimeout(link.timer);
    if (link.source) link.source.close();
    const source = new EventSource('api/stream');
    link.source = source;
    link.heardAt = performance.now();
    source.addEventListener('snapshot', (message) => {
      const data = parse(message);
      if (!data || typeof data !== 'object') return;
      pending.snapshot = data;
      pending.rows.clear();
      pending.events = [];
      queueRows(data.boxes);
      queueEvents(data.events);
      link.live = true;
      link.everLive = true;
      link.retry = 0;
      heard(data.broker);
      if (!commands.loaded) loadCommands();
      schedule();
    });
    source.addEventListener('boxes', (message) => {
      queueRows(parse(message));
      heard();
      schedule();
    });
    source.addEventListener('events', (message) => {
      queueEvents(parse(message));
      heard();
      schedule();
    });
    for (const name of ['link', 'tick']) {
      source.addEventListener(name, (message) => {
        const data = parse(message);
        heard(data && data.broker);
        schedule();
      });
    }
    source.onerror = () => {
      // The browser would try again by itself after a network error, but not
      // after an answer it cannot use (a server restarting behind a proxy,
      // an error page): the page tries again itself in either case.
      source.close();
      if (link.source !== source) return;
      link.source = null;
      lose();
      const wait = kRetryMs[Math.min(link.retry, kRetryMs.length - 1)];
      link.retry += 1;
      link.timer = setTimeout(open, wait);
    };
  }

  function lose() {
    if (!link.live) return;
    link.live = false;
    schedule();
  }

  function watchSilence() {
    const silent = performance.now() - link.heardAt;
    if (link.live && silent > kSilenceMs) lose();
    if (link.source && silent > kReopenMs) open();
  }

  // ---- Applying a frame's messages --------------------------------------

  function flush() {
    pending.scheduled = false;
    if (pending.snapshot) {
      applySnapshot(pending.snapshot);
      pending.snapshot = null;
    }
    if (pending.broker) {
      link.broker = pending.broker;
      pending.broker = null;
    }
    if (pending.rows.size) {
      for (const data of pending.rows.values()) applyRow(data);
      pending.rows.clear();
    }
    if (pending.events.length) {
      const fresh = pending.events;
      pending.events = [];
      addEvents(fresh);
    }
    if (log.dirty) drawLog();
    if (view.orderDirty) placeRows();
    if (view.countsDirty) showCounts();
    if (view.idsDirty && !view.idsLater) {
      // The IDs offered while typing can wait for a quiet moment: the rows
      // come first.
      view.idsLater = true;
      (window.requestIdleCallback || setTimeout)(showIds, {timeout: 1000});
    }
    showLink();
  }

  function applySnapshot(snapshot) {
    const present = new Set();
    if (Array.isArray(snapshot.boxes)) {
      for (const data of snapshot.boxes) {
        if (data && typeof data.box === 'string') present.add(data.box);
      }
    }
    for (const [id, row] of rows) {
      if (present.has(id)) {
        // The snapshot's row says what the last event is now.
        row.event = null;
        setTime(row.cells.eventTime, '', '');
        setText(row.cells.eventNumber, '');
        setText(row.cells.eventText, '');
      } else {
        row.node.remove();
        rows.delete(id);
        picked.delete(id);
      }
    }
    events = [];
    view.orderDirty = view.countsDirty = view.idsDirty = true;
    renderLog();
    showPicked();
  }

  // ---- The box table ----------------------------------------------------

  const tbody = $('box-rows');
  const rowTemplate = $('row-template').content.firstElementChild;
  const picked = new Set();

  function makeRow(id) {
    const node = rowTemplate.cloneNode(true);
    node.setAttribute('data-box', id);
    const cells = node.children;
    const pick = cells[0].firstElementChild;
    pick.setAttribute('aria-label', `Select ${id}`);
    pick.checked = picked.has(id);
    cells[1].textContent = id;
    const row = {
      id,
      node,
      pick,
      status: null,
      service: null,
      event: null,
      changed: undefined,  // so that the first row shows "unknown" for null
      shown: true,
      cells: {
        status: cells[2],
        service: cells[3],
        eventTime: cells[4].children[0],
        eventNumber: cells[4].children[1],
        eventText: cells[4].children[2],
        changed: cells[5].firstElementChild,
      },
    };
    rows.set(id, row);
    view.orderDirty = view.countsDirty = view.idsDirty = true;
    return row;
  }

  const serviceOf = (value) => (value === 'up' || value === 'down' ? value : 'unknown');

  function applyRow(data) {
    const row = rows.get(data.box) || makeRow(data.box);
    const status = typeof data.status === 'string' ? data.status : 'offline';
    const service = serviceOf(data.service);
    const changed = typeof data.changed === 'string' ? data.changed : null;
    let touched = false;
    if (row.status !== status) {
      row.status = status;
      setAttr(row.node, 'data-status', status);
      setText(row.cells.status, status);
      touched = true;
      view.countsDirty = true;
    }
    if (row.service !== service) {
      row.service = service;
      setAttr(row.node, 'data-service', service);
      setText(row.cells.service, service === 'unknown' ? '-' : service);
      touched = true;
      view.countsDirty = true;
    }
    if (row.changed !== changed) {
      row.changed = changed;
      setTime(row.cells.changed, changed, 'unknown');
      touched = true;
    }
    if (data.event && typeof data.event === 'object') touched = showEvent(row, data.event) || touched;
    if (touched) {
      if (view.sortKey !== 'box') view.orderDirty = true;
      filterRow(row);
    }
  }

  // Shows an event as the row's last one unless the row holds a later one
  // (a row and the event stream may bring the same event twice).
  function showEvent(row, event) {
    const time = typeof event.time === 'string' ? event.time : '';
    if (row.event && row.event.time > time) return false;
    if (row.event && row.event.time === time && row.event.id === event.id) return false;
    row.event = {time, id: event.id, text: eventText(event)};
    setTime(row.cells.eventTime, time, '');
    setText(row.cells.eventNumber, eventNumber(event));
    setText(row.cells.eventText, row.event.text);
    return true;
  }

  function filterRow(row) {
    const shown = !view.filter || rowMatches(row, view.filter);
    if (shown !== row.shown) {
      row.shown = shown;
      row.node.hidden = !shown;
      view.countsDirty = true;
    }
  }

  function rowMatches(row, filter) {
    return row.id.toLowerCase().includes(filter) || (row.status || '').includes(filter) ||
        (row.service || '').includes(filter) || (row.event !== null && row.event.text.toLowerCase().includes(filter));
  }

  const sorters = {
    box: () => 0,
    status: (a, b) => collator.compare(a.status || '', b.status || ''),
    service: (a, b) => collator.compare(a.service || '', b.service || ''),
    // Latest first when ascending: what happened last is what one looks for.
    event: (a, b) => compareTimes(b.event && b.event.time, a.event && a.event.time),
    changed: (a, b) => compareTimes(b.changed, a.changed),
  };

  // Unknown times sort after known ones.
  function compareTimes(a, b) {
    if (a === b) return 0;
    if (!a) return 1;
    if (!b) return -1;
    return a < b ? -1 : 1;
  }

  function compareRows(a, b) {
    const first = sorters[view.sortKey](a, b);
    return view.sortDir * (first !== 0 ? first : collator.compare(a.id, b.id));
  }

  // Puts the rows in order, moving only those that are out of place.
  function placeRows() {
    view.orderDirty = false;
    const sorted = Array.from(rows.values()).sort(compareRows);
    if (!tbody.firstElementChild) {
      // The first rows: put into the page at once.
      const fragment = document.createDocumentFragment();
      for (const row of sorted) fragment.appendChild(row.node);
      tbody.appendChild(fragment);
      return;
    }
    let node = tbody.firstElementChild;
    for (const row of sorted) {
      if (row.node === node) {
        node = node.nextElementSibling;
      } else {
        tbody.insertBefore(row.node, node);
      }
    }
  }

  function showCounts() {
    view.countsDirty = false;
    let online = 0;
    let offline = 0;
    let down = 0;
    let shown = 0;
    for (const row of rows.values()) {
      if (row.status === 'online') {
        online += 1;
      } else {
        offline += 1;
      }
      if (row.service === 'down') down += 1;
      if (row.shown) shown += 1;
    }
    setText(document.querySelector('[data-count="boxes"]'), String(rows.size));
    setText(document.querySelector('[data-count="online"]'), String(online));
    setText(document.querySelector('[data-count="offline"]'), String(offline));
    setText(document.querySelector('[data-count="down"]'), String(down));
    setText($('box-shown'), view.filter ? `${shown} of ${rows.size} shown` : '');
    $('no-boxes').hidden = rows.size !== 0;
    document.querySelector('.counts .bad').classList.toggle('on', offline > 0);
    document.querySelector('.counts .warn').classList.toggle('on', down > 0);
  }

  // The box IDs offered by the target and log filter fields.
  function showIds() {
    view.idsDirty = false;
    view.idsLater = false;
    const list = $('box-ids');
    const ids = Array.from(rows.keys()).sort(collator.compare);
    const options = list.children;
    for (let i = 0; i < ids.length; i += 1) {
      let option = options[i];
      if (!option) {
        option = document.createElement('option');
        list.appendChild(option);
      }
      if (option.value !== ids[i]) option.value = ids[i];
    }
    while (list.children.length > ids.length) list.lastElementChild.remove();
  }

  function showLink() {
    const up = link.live && link.broker === 'up';
    setAttr($('link'), 'data-link', up ? 'up' : 'down');
    let text = 'live';
    if (!link.live) text = link.everLive ? 'no link to kendrivex-fleet' : 'connecting';
    else if (!up) text = 'kendrivex-fleet has no link to the broker';
    setText($('link-text'), text);
    // Without the stream, what the page shows may be out of date: dimmed.
    if (document.body.classList.contains('stale') === link.live) document.body.classList.toggle('stale', !link.live);
  }

  function sortBy(key) {
    if (view.sortKey === key) {
      view.sortDir = -view.sortDir;
    } else {
      view.sortKey = key;
      view.sortDir = 1;
    }
    for (const button of document.querySelectorAll('[data-sort]')) {
      const header = button.parentElement;
      if (button.dataset.sort === key) {
        header.setAttribute('aria-sort', view.sortDir > 0 ? 'ascending' : 'descending');
      } else {
        header.removeAttribute('aria-sort');
      }
    }
    placeRows();
  }

  function setFilter(text) {
    view.filter = text.trim().toLowerCase();
    for (const row of rows.values()) filterRow(row);
    showCounts();
    showPicked();
  }

  // ---- Picking boxes ----------------------------------------------------

  function showPicked() {
    setText($('picked-count'), String(picked.size));
    $('target-picked').disabled = picked.size === 0;
    const all = $('pick-all');
    const shown = Array.from(rows.values()).filter((row) => row.shown);
    all.checked = shown.length > 0 && shown.every((row) => picked.has(row.id));
    all.indeterminate = !all.checked && shown.some((row) => picked.has(row.id));
  }

  function pickedTarget() {
    return Array.from(picked).sort(collator.compare).join(',');
  }

  function setPicked(row, on) {
    if (on) {
      picked.add(row.id);
    } else {
      picked.delete(row.id);
    }
    row.pick.checked = on;
  }

  // The picked boxes are the command's target; none picked, all of them.
  function showPickedTarget() {
    $('run-target').value = picked.size ? pickedTarget() : 'all';
    showPicked();
  }

  // ---- The event log ----------------------------------------------------
  //
  // Up to kMaxEvents lines, newest first; but only the lines in view are in
  // the page: a few line nodes, filled again with the events at their places
  // whenever the log moves or is scrolled. Each new event moves every line
  // down one place, and 500 lines in the page would be laid out and painted
  // again each time; so only what is seen is.

  const kLineHeight = 19;  // pixels, as app.css gives the lines
  const logView = $('log-view');  // the scrolled box
  const logSizer = $('log-sizer');  // as high as all the lines
  const logList = $('log-lines');  // the lines in view
  const lineTemplate = $('line-template').content.firstElementChild;
  const log = {
    shown: [],     // the events the log holds now, newest first
    top: 0,        // the scroll position, as the last scroll event said
    rows: 0,       // lines that fit in view, and one more
    dirty: false,  // to be drawn in the next frame
  };

  function logMatches(event) {
    if (view.logBox && event.box !== view.logBox) return false;
    if (view.logNumber && eventNumber(event) !== view.logNumber) return false;
    return true;
  }

  function fillLine(line, event) {
    line.hidden = false;
    setAttr(line, 'data-event-box', event.box);
    setAttr(line, 'data-event-id', eventNumber(event));
    const parts = line.children;
    setTime(parts[0], typeof event.time === 'string' ? event.time : '', '');
    setText(parts[1], event.box);
    setText(parts[2], eventNumber(event));
    setText(parts[3], eventText(event));
  }

  function emptyLine(line) {
    line.hidden = true;
    line.removeAttribute('data-event-box');
    line.removeAttribute('data-event-id');
  }

  // Puts the events at the scroll position into the line nodes.
  function drawLog() {
    log.dirty = false;
    logSizer.style.height = `${log.shown.length * kLineHeight}px`;
    const first = Math.min(Math.floor(log.top / kLineHeight), Math.max(0, log.shown.length - log.rows));
    logList.style.transform = `translateY(${first * kLineHeight}px)`;
    while (logList.children.length < log.rows) logList.appendChild(lineTemplate.cloneNode(true));
    const lines = logList.children;
    for (let i = 0; i < lines.length; i += 1) {
      const event = i < log.rows ? log.shown[first + i] : undefined;
      if (event) {
        fillLine(lines[i], event);
      } else if (!lines[i].hidden) {
        emptyLine(lines[i]);
      }
    }
  }

  // The whole log again: after a snapshot, a change of filter or a pause.
  function renderLog() {
    const chosen = [];
    for (let i = events.length - 1; i >= 0 && chosen.length < kMaxEvents; i -= 1) {
      if (logMatches(events[i])) chosen.push(events[i]);
    }
    log.shown = chosen;
    view.logMissed = 0;
    drawLog();
    showLogState();
  }

  function addEvents(fresh) {
    events.push(...fresh);
    if (events.length > kMaxEvents) events.splice(0, events.length - kMaxEvents);
    for (const event of fresh) {
      const row = rows.get(event.box);
      if (row && showEvent(row, event)) {
        if (view.sortKey === 'event') view.orderDirty = true;
        filterRow(row);
      }
    }
    if (view.logPaused) {
      view.logMissed += fresh.length;
      showLogState();
      return;
    }
    const matching = fresh.filter(logMatches);
    if (matching.length === 0) return;
    log.shown = matching.reverse().concat(log.shown);
    if (log.shown.length > kMaxEvents) log.shown.length = kMaxEvents;
    drawLog();
    // Scrolled down to older lines, the reader keeps seeing the same ones.
    if (log.top > 0) {
      log.top += matching.length * kLineHeight;
      logView.scrollTop = log.top;
    }
  }

  function onLogScroll() {
    log.top = logView.scrollTop;
    if (!log.dirty) {
      log.dirty = true;
      schedule();
    }
  }

  function onLogResize(entries) {
    const height = entries[entries.length - 1].contentRect.height;
    log.rows = Math.ceil(height / kLineHeight) + 1;
    log.dirty = true;
    schedule();
  }

  function showLogState() {
    let text = '';
    if (view.logPaused) text = view.logMissed ? `paused, ${view.logMissed} new` : 'paused';
    setText($('log-state'), text);
  }

  function setLogPaused(paused) {
    view.logPaused = paused;
    const button = $('log-pause');
    button.setAttribute('aria-pressed', String(paused));
    button.textContent = paused ? 'Resume' : 'Pause';
    if (!paused) renderLog();
    showLogState();
  }

  // ---- Commands ---------------------------------------------------------

  const commands = {loaded: false, loading: false, byName: new Map()};

  async function loadCommands() {
    if (commands.loading) return;
    commands.loading = true;
    try {
      const response = await fetch('api/commands', {headers: {Accept: 'application/json'}});
      if (!response.ok) return;
      const list = await response.json();
      if (!Array.isArray(list)) return;
      const select = $('run-command');
      select.textContent = '';
      commands.byName.clear();
      for (const command of list) {
        if (!command || typeof command.name !== 'string') continue;
        commands.byName.set(command.name, typeof command.arguments === 'string' ? command.arguments : '');
        const option = document.createElement('option');
        option.value = command.name;
        option.textContent = command.name;
        select.appendChild(option);
      }
      commands.loaded = commands.byName.size > 0;
      showArguments();
      $('run').disabled = !commands.loaded || running;
    } catch (error) {
      // The stream's next snapshot tries again.
    } finally {
      commands.loading = false;
    }
  }

  function showArguments() {
    const wanted = commands.byName.get($('run-command').value) || '';
    $('run-args-label').hidden = wanted === '';
    $('run-args').placeholder = wanted;
  }

  // "all", one ID, or IDs separated by commas, as kendrivex-fleet run takes
  // its target.
  function readTarget(text) {
    const ids = text.split(',').map((id) => id.trim()).filter((id) => id !== '');
    if (ids.length === 0) return null;
    if (ids.length === 1) return ids[0];
    return ids;
  }

  // The status kendrivex-fleet run would give for one box: 0 answered with
  // success, 1 answered otherwise (another code, or the bridge's error
  // object), 3 did not answer or could not be reached.
  function replyStatus(reply) {
    if (typeof reply.code === 'number') return reply.code === 1 ? 0 : 1;
    if (typeof reply.command === 'string') return 1;
    return reply.status === 1 ? 1 : 3;
  }

  const statusWords = {0: 'ok', 1: 'failed', 3: 'no answer'};

  function replyText(reply) {
    if (typeof reply.code === 'number') {
      const args = Array.isArray(reply.args) ? reply.args.map(String) : [];
      return (reply.code === 1 ? '' : `code ${reply.code}: `) + args.join('  ');
    }
    if (typeof reply.error === 'string') return reply.error;
    return JSON.stringify(reply);
  }

  let running = false;

  function showSummary(text, failed) {
    const summary = $('run-summary');
    setText(summary, text);
    summary.classList.toggle('error', Boolean(failed));
  }

  function showReplies(command, replies) {
    const list = $('reply-list');
    list.textContent = '';
    const counts = [0, 0, 0, 0];
    const fragment = document.createDocumentFragment();
    // Those that did not answer first, then those that failed: what needs a
    // look is on top.
    const shown = replies.filter((reply) => reply && typeof reply === 'object')
                      .map((reply) => ({reply, status: replyStatus(reply)}))
                      .sort((a, b) => b.status - a.status || collator.compare(String(a.reply.box), String(b.reply.box)));
    for (const {reply, status} of shown) {
      counts[status] += 1;
      const item = document.createElement('li');
      item.setAttribute('data-reply-box', String(reply.box));
      item.setAttribute('data-reply-status', String(status));
      item.className = `reply s${status}`;
      const box = document.createElement('span');
      box.className = 'box';
      box.textContent = String(reply.box);
      const word = document.createElement('span');
      word.className = 'word';
      word.textContent = statusWords[status];
      const text = document.createElement('span');
      text.className = 'text';
      text.textContent = replyText(reply);
      item.append(box, word, text);
      fragment.appendChild(item);
    }
    list.appendChild(fragment);
    const total = counts[0] + counts[1] + counts[3];
    showSummary(`${command}: ${total} ${total === 1 ? 'box' : 'boxes'}, ${counts[0]} answered with success, ` +
                    `${counts[1]} otherwise, ${counts[3]} did not answer`,
                counts[1] + counts[3] > 0);
  }

  async function run(submitEvent) {
    submitEvent.preventDefault();
    if (running || !commands.loaded) return;
    const target = readTarget($('run-target').value);
    if (target === null) {
      showSummary('Name the boxes: all, one ID, or IDs separated by commas.', true);
      return;
    }
    const name = $('run-command').value;
    const args = $('run-args').value.trim();
    const command = commands.byName.get(name) && args ? `${name} ${args}` : name;
    const timeout = Number($('run-timeout').value);
    const body = {target, command};
    if (Number.isInteger(timeout) && timeout > 0) body.timeout = timeout;
    running = true;
    $('run').disabled = true;
    $('reply-list').textContent = '';
    showSummary(`${command}: running…`, false);
    try {
      const response = await fetch('api/run', {
        method: 'POST',
        headers: {'Content-Type': 'application/json', Accept: 'application/json'},
        body: JSON.stringify(body),
      });
      let answer = null;
      try {
        answer = await response.json();
      } catch (error) {
        answer = null;
      }
      if (!response.ok) {
        const why = answer && typeof answer.error === 'string' ? answer.error : `HTTP status ${response.status}`;
        showSummary(`${command}: refused: ${why}`, true);
      } else if (!Array.isArray(answer)) {
        showSummary(`${command}: kendrivex-fleet's answer was not a list of replies`, true);
      } else {
        showReplies(command, answer);
      }
    } catch (error) {
      showSummary(`${command}: no answer from kendrivex-fleet`, true);
    } finally {
      running = false;
      $('run').disabled = !commands.loaded;
    }
  }

  // ---- Wiring -----------------------------------------------------------

  function start() {
    for (const button of document.querySelectorAll('[data-sort]')) {
      button.addEventListener('click', () => sortBy(button.dataset.sort));
    }
    document.querySelector('[data-sort="box"]').parentElement.setAttribute('aria-sort', 'ascending');
    $('box-filter').addEventListener('input', (event) => setFilter(event.target.value));
    tbody.addEventListener('change', (event) => {
      const node = event.target.closest('[data-box]');
      const row = node && rows.get(node.getAttribute('data-box'));
      if (row && event.target === row.pick) {
        setPicked(row, row.pick.checked);
        showPickedTarget();
      }
    });
    $('pick-all').addEventListener('change', (event) => {
      for (const row of rows.values()) {
        if (row.shown) setPicked(row, event.target.checked);
      }
      showPickedTarget();
    });
    $('target-all').addEventListener('click', () => {
      $('run-target').value = 'all';
    });
    $('target-picked').addEventListener('click', () => {
      if (picked.size) $('run-target').value = pickedTarget();
    });
    $('run-command').addEventListener('change', showArguments);
    $('run-form').addEventListener('submit', run);
    $('run-timeout').value = String(kDefaultTimeoutMs);
    $('log-pause').addEventListener('click', () => setLogPaused(!view.logPaused));
    $('log-box').addEventListener('input', (event) => {
      view.logBox = event.target.value.trim();
      if (!view.logPaused) renderLog();
    });
    $('log-number').addEventListener('input', (event) => {
      view.logNumber = event.target.value.trim();
      if (!view.logPaused) renderLog();
    });
    logView.addEventListener('scroll', onLogScroll, {passive: true});
    new ResizeObserver(onLogResize).observe(logView);
    setInterval(watchSilence, kSilenceCheckMs);
    loadCommands();
    open();
    showLink();
  }

  start();
})();
