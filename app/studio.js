// Stencil studio, the browser's side. The server lays the picture on the
// page and runs the printer's engine on it; this page draws what comes back,
// one canvas pixel a printer dot, and asks for a print of exactly the choice
// it shows. document.body's data-state (busy, ready, error) and the canvas's
// data-shown and data-ms say what is on screen, for people and for tests.
'use strict';

(function () {
  const $ = (id) => document.getElementById(id);
  const printerName = new URLSearchParams(location.search).get('printer') || '';
  const keys = ['page', 'halftone', 'brightness', 'mirror', 'negative'];
  // Device pixels a dot; 0 fits the page into the box.
  const zoomSteps = [0.125, 0.25, 0.5, 1, 2, 4, 8];
  const st = {
    info: null,
    file: null,
    page: null,     // the held page: {page, width, height}
    shown: null,    // the choice on the canvas
    wanted: null,   // a choice waiting for its preview
    changedAt: 0,   // when the newest change was made
    running: false, // a preview is on its way
    uploads: 0,     // pictures sent so far; only the newest counts
    uploading: false,
    zoom: 0,
  };
  let brightnessTimer = 0;

  function say(text, error) {
    const m = $('message');
    m.textContent = text;
    m.className = error ? 'error' : '';
  }

  function setState(state) { document.body.dataset.state = state; }

  async function ask(url, init) {
    let reply;
    try {
      reply = await fetch(url, Object.assign({ cache: 'no-store' }, init));
    } catch (e) {
      throw new Error('The printer application cannot be reached.');
    }
    if (!reply.ok) {
      let message = 'The printer application refused the request (' + reply.status + ').';
      try {
        const body = await reply.json();
        if (body.error) message = body.error;
      } catch (e) { /* no sentence came with it */ }
      throw new Error(message);
    }
    return reply;
  }

  function choice() {
    return {
      page: st.page ? st.page.page : '',
      halftone: $('halftone').value,
      brightness: $('brightness').value,
      mirror: $('mirror').checked ? 'true' : 'false',
      negative: $('negative').checked ? 'true' : 'false',
    };
  }
  const same = (a, b) => a !== null && b !== null && keys.every((k) => a[k] === b[k]);

  function setControls() {
    const ready = st.info !== null;
    for (const id of ['media', 'halftone', 'brightness', 'mirror', 'negative']) $(id).disabled = !ready;
    // Only what is on screen prints.
    $('print').disabled = st.running || st.uploading || st.wanted !== null || !same(st.shown, choice());
  }

  // "P4 <width> <height>" and packed rows, a set bit a dot.
  function parseBitmap(bytes) {
    let at = 0;
    const fields = [];
    while (fields.length < 3) {
      while (at < bytes.length && /\s/.test(String.fromCharCode(bytes[at]))) ++at;
      let text = '';
      while (at < bytes.length && !/\s/.test(String.fromCharCode(bytes[at]))) text += String.fromCharCode(bytes[at++]);
      fields.push(text);
    }
    const width = Number(fields[1]), height = Number(fields[2]);
    if (fields[0] !== 'P4' || !(width > 0) || !(height > 0)) throw new Error('The preview came back damaged.');
    return { width, height, rows: bytes.subarray(at + 1) };
  }

  function draw(bitmap) {
    const canvas = $('canvas');
    const { width, height, rows } = bitmap;
    const rowBytes = (width + 7) >> 3;
    if (rows.length < rowBytes * height) throw new Error('The preview came back cut short.');
    canvas.width = width;
    canvas.height = height;
    const context = canvas.getContext('2d');
    const image = context.createImageData(width, height);
    const pixels = new Uint32Array(image.data.buffer);
    const dot = 0xff000000, paper = 0xffffffff;  // opaque black and white in any byte order
    let out = 0;
    for (let y = 0; y < height; ++y) {
      const row = y * rowBytes;
      for (let x = 0; x < width; ++x) pixels[out++] = rows[row + (x >> 3)] & (0x80 >> (x & 7)) ? dot : paper;
    }
    context.putImageData(image, 0, 0);
    $('preview').classList.remove('stale');
    applyZoom();
  }

  function applyZoom() {
    const canvas = $('canvas'), box = $('preview');
    const ratio = window.devicePixelRatio || 1;
    // Keep the middle of what is seen in the middle.
    const midX = (box.scrollLeft + box.clientWidth / 2) / Math.max(1, box.scrollWidth);
    const midY = (box.scrollTop + box.clientHeight / 2) / Math.max(1, box.scrollHeight);
    const fit = Math.min(box.clientWidth / canvas.width, (window.innerHeight * 0.8) / canvas.height);
    const cssPerDot = st.zoom === 0 ? fit : st.zoom / ratio;
    canvas.style.width = canvas.width * cssPerDot + 'px';
    canvas.style.height = canvas.height * cssPerDot + 'px';
    box.scrollLeft = midX * box.scrollWidth - box.clientWidth / 2;
    box.scrollTop = midY * box.scrollHeight - box.clientHeight / 2;
    const percent = Math.round(cssPerDot * ratio * 100);
    $('zoom-label').textContent = st.zoom === 1 ? '1 dot = 1 screen pixel' : (st.zoom === 0 ? 'Fit, ' : '') + percent + '%';
    $('fit').setAttribute('aria-pressed', String(st.zoom === 0));
    $('actual').setAttribute('aria-pressed', String(st.zoom === 1));
  }

  function zoomBy(direction) {
    const canvas = $('canvas'), ratio = window.devicePixelRatio || 1;
    const now = st.zoom !== 0 ? st.zoom : (parseFloat(canvas.style.width) / canvas.width) * ratio;
    const next = direction > 0 ? zoomSteps.find((z) => z > now * 1.01) : zoomSteps.slice().reverse().find((z) => z < now / 1.01);
    if (next !== undefined) st.zoom = next;
    applyZoom();
  }

  // Asks for the preview of the current choice; while one is on its way,
  // only the newest choice waits.
  function update() {
    if (st.page === null) return;
    st.changedAt = performance.now();
    st.wanted = choice();
    setControls();
    if (!st.running) run();
  }

  async function run() {
    st.running = true;
    setState('busy');
    while (st.wanted !== null) {
      const wanted = st.wanted, since = st.changedAt;
      st.wanted = null;
      say('Working on the preview…');
      try {
        const reply = await ask('preview?' + new URLSearchParams(wanted));
        const bitmap = parseBitmap(new Uint8Array(await reply.arrayBuffer()));
        // Out of date: a newer choice waits, or another picture came.
        if (st.wanted !== null || st.page === null || st.page.page !== wanted.page) continue;
        draw(bitmap);
        st.shown = wanted;
        const ms = Math.round(performance.now() - since);
        $('canvas').dataset.shown = JSON.stringify(wanted);
        $('canvas').dataset.ms = String(ms);
        $('timing').textContent = 'Preview in ' + (ms / 1000).toFixed(2) + ' s';
        say(bitmap.width + ' x ' + bitmap.height + ' dots at ' + st.info.dpi + ' dpi, as the printer prints it.');
        setState('ready');
      } catch (e) {
        if (st.wanted !== null || st.page === null || st.page.page !== wanted.page) continue;
        st.shown = null;
        $('preview').classList.add('stale');
        say(e.message, true);
        setState('error');
      }
    }
    st.running = false;
    setControls();
  }

  // Sends the picture to be laid on the chosen page size.
  async function upload() {
    const file = $('picture').files[0];
    if (!file) return;
    const ticket = ++st.uploads;
    st.file = file;
    st.page = null;
    st.shown = null;
    $('preview').classList.add('stale');
    st.uploading = true;
    setControls();
    setState('busy');
    say('Reading the picture…');
    try {
      const query = new URLSearchParams({ printer: st.info.printer, media: $('media').value });
      const reply = await ask('picture?' + query, {
        method: 'POST', body: file, headers: { 'Content-Type': 'application/octet-stream' },
      });
      const page = await reply.json();
      if (ticket !== st.uploads) return;
      st.page = page;
      st.uploading = false;
      update();
    } catch (e) {
      if (ticket !== st.uploads) return;
      st.uploading = false;
      say(e.message, true);
      setState('error');
      setControls();
    }
  }

  async function print() {
    const shown = st.shown;
    if (shown === null) return;
    $('print').disabled = true;
    say('Sending the job…');
    try {
      const form = new URLSearchParams(Object.assign({ session: st.info.session, name: st.file.name }, shown));
      const reply = await ask('print', {
        method: 'POST', body: form.toString(), headers: { 'Content-Type': 'application/x-www-form-urlencoded' },
      });
      const job = await reply.json();
      document.body.dataset.job = String(job.job);
      say(job.message);
    } catch (e) {
      say(e.message, true);
    }
    setControls();
  }

  function fill(select, items, chosen) {
    select.textContent = '';
    for (const item of items) {
      const option = document.createElement('option');
      option.value = item.value;
      option.textContent = item.label;
      if (item.engine) option.dataset.engine = item.engine;
      option.selected = item.value === chosen;
      select.appendChild(option);
    }
  }

  async function start() {
    setState('busy');
    try {
      st.info = await (await ask('info?printer=' + encodeURIComponent(printerName))).json();
    } catch (e) {
      say(e.message, true);
      setState('error');
      return;
    }
    const info = st.info;
    $('printer-name').textContent = info.printer;
    document.title = 'Stencil studio: ' + info.printer;
    $('back').href = info.printerPage + '/';
    $('back').textContent = info.printer;
    fill($('media'), info.media.map((m) => ({ value: m.name, label: m.label })),
      info.mediaDefault);
    fill($('halftone'), info.halftones.map((h) => ({ value: h.keyword, label: h.label, engine: h.engine })),
      info.halftoneDefault);
    const brightness = $('brightness');
    brightness.min = info.brightness.min;
    brightness.max = info.brightness.max;
    brightness.value = info.brightness.default;
    $('brightness-value').textContent = brightness.value;
    $('mirror').checked = info.mirror;
    $('negative').checked = info.negative;
    say('Choose a PNG picture of up to ' + Math.floor(info.maxUploadBytes / 1048576) + ' MB.');

    $('picture').addEventListener('change', upload);
    $('media').addEventListener('change', () => { if (st.file) upload(); });
    for (const id of ['halftone', 'mirror', 'negative']) $(id).addEventListener('change', update);
    // A slider fires while it moves: the preview follows once it rests.
    brightness.addEventListener('input', () => {
      $('brightness-value').textContent = brightness.value;
      setControls();
      clearTimeout(brightnessTimer);
      brightnessTimer = setTimeout(update, 250);
    });
    brightness.addEventListener('change', () => { clearTimeout(brightnessTimer); update(); });
    $('print').addEventListener('click', print);
    $('fit').addEventListener('click', () => { st.zoom = 0; applyZoom(); });
    $('actual').addEventListener('click', () => { st.zoom = 1; applyZoom(); });
    $('zoom-in').addEventListener('click', () => zoomBy(1));
    $('zoom-out').addEventListener('click', () => zoomBy(-1));
    window.addEventListener('resize', applyZoom);
    setControls();
    setState('ready');
  }

  start();
})();
