// A session before it runs: what its frames are for, by options; and its run, with frames as they are measured.
import { address, get, post } from './api.js';
import { addTool, make, pretty, tell } from './dom.js';

/** @typedef {{name: string, lights?: number, darks?: number, flats?: number, biases?: number, error?: string}} Folder */
/** @typedef {{name: string, kind: string, help: string, choices: string[], low: number, high: number}} Option */

/** @param {() => Promise<void>} reload of the list of images */
export async function addPlan(reload) {
  const folders = /** @type {Folder[]} */ (await get('plan/folders'));
  const sessions = folders.map((folder, number) => ({ ...folder, number })).filter((folder) => folder.lights);
  if (sessions.length === 0) return;
  const options = /** @type {Option[]} */ (await get('plan/options'));

  const dialog = /** @type {HTMLDialogElement} */ (make('dialog', { id: 'plan', ariaLabel: 'The session' }));
  document.body.append(dialog);
  const which = make('select', { ariaLabel: 'Folder' }, ...sessions.map((folder) => make('option', { value: String(folder.number) },
    `${folder.name}: ${folder.lights} lights, ${folder.darks} darks, ${folder.flats} flats, ${folder.biases} biases`)));
  const out = make('input', { type: 'text', className: 'wide', value: 'result', ariaLabel: 'Folder for the results, in that of the frames' });
  /** @type {Map<string, () => string>} */
  const values = new Map();
  const fields = options.map((option) => {
    /** @type {HTMLElement} */
    let input;
    if (option.kind === 'flag') {
      const box = make('input', { type: 'checkbox', onchange: plan });
      values.set(option.name, () => (box.checked ? '1' : ''));
      input = box;
    } else if (option.kind === 'choice') {
      const select = make('select', { onchange: plan }, ...option.choices.map((word) => make('option', { value: word }, word)));
      values.set(option.name, () => (select.value === option.choices[0] ? '' : select.value));
      input = select;
    } else {
      const box = make('input', { type: 'text', onchange: plan });
      values.set(option.name, () => box.value.trim());
      input = box;
    }
    input.ariaLabel = option.name;
    return make('label', { className: 'field two', title: option.help }, make('span', {}, option.name), input);
  });
  const notes = make('ul', { className: 'notes' });
  const rows = make('tbody');
  const warnings = make('ul', { className: 'warnings' });
  const command = make('textarea', { className: 'wide command', readOnly: true, rows: 3, ariaLabel: 'The command that does the same' });
  const runs = make('button', { type: 'button', className: 'main' }, 'Run');
  const cancel = make('button', { type: 'button', hidden: true }, 'Cancel');
  const close = make('button', { type: 'button' }, 'Close');
  const bar = make('progress', { max: 1, value: 0, hidden: true, ariaLabel: 'The run' });
  const state = make('p', { role: 'status' });
  const measured = make('tbody');
  const results = make('div', { className: 'row' });
  const head = (/** @type {string[]} */ ...names) => make('thead', {}, make('tr', {}, ...names.map((name) => make('th', {}, name))));

  dialog.append(
    make('header', { className: 'row' }, make('h2', {}, 'Session'), which, make('span', { className: 'gap' }), runs, cancel, close),
    make('section', {},
      make('label', { className: 'field two', title: 'a new folder in that of the frames' }, make('span', {}, 'results in'), out), ...fields,
      make('p', { className: 'faint' }, 'The same by the command line:'), command),
    make('section', { className: 'scrolls' }, state, bar, results, warnings, notes,
      make('table', { className: 'measured' }, head('measured', 'stars', 'FWHM', 'sky', 'noise'), measured),
      make('table', {}, head('light', 'dark', 'flat', 'bias'), rows)));

  const body = () => ({
    folder: Number(which.value), out: out.value.trim(),
    options: Object.fromEntries([...values].map(([name, value]) => [name, value()]).filter(([, value]) => value)),
  });

  let exists = false, isSound = false, asked = 0;
  let planned = Promise.resolve();
  function plan() {
    planned = makePlan();
  }
  async function makePlan() {
    const own = ++asked;
    isSound = false;
    try {
      const told = await post('plan/make', body());
      if (own !== asked) return;
      command.value = told.command;
      exists = told.exists;
      notes.replaceChildren(...told.notes.map((/** @type {string} */ line) => make('li', {}, line)));
      warnings.replaceChildren(...told.warnings.map((/** @type {string} */ line) => make('li', {}, line)));
      rows.replaceChildren(...told.rows.map((/** @type {Record<string, any>} */ row) => make('tr', {},
        ...[row.file, row.dark, row.flat, row.bias].map((cell) => make('td', {}, cell ?? '–')))));
      isSound = true;
    } catch (error) {
      if (own !== asked) return;
      command.value = '';
      notes.replaceChildren();
      rows.replaceChildren();
      warnings.replaceChildren(make('li', {}, error instanceof Error ? error.message : String(error)));
    }
  }

  let isWorking = false;
  /** @type {EventSource | null} */
  let source = null;
  /** Shows the job that is at work, whoever began it. @param {number} last the number of the last event that is known */
  function follow(last) {
    source?.close();
    isWorking = true;
    runs.disabled = true;
    cancel.hidden = bar.hidden = false;
    source = new EventSource(address('work/events', { last }));
    source.onmessage = (message) => {
      const event = JSON.parse(message.data);
      if (event.kind === 'progress') {
        bar.value = event.total > 0 ? event.step / event.total : 0;
        if (event.total > 0) state.textContent = `${event.text}: ${event.detail ?? `${event.step} of ${event.total}`}`;
      } else if (event.kind === 'warning' || event.kind === 'failure') {
        warnings.append(make('li', {}, event.text));
      } else if (event.data?.measured) {
        const { measured: file, stars, fwhm, sky, noise } = event.data;
        measured.append(make('tr', {}, ...[file.split('/').pop(), String(stars), pretty(Number(fwhm.toFixed(2))), pretty(sky), pretty(noise)]
          .map((cell) => make('td', {}, cell))));
      } else if (event.kind === 'end') end(event);
    };
    source.onerror = () => source?.readyState === EventSource.CLOSED && end({ state: 'failed', error: 'the viewer has gone' });
  }
  /** @param {Record<string, any>} event */
  function end(event) {
    source?.close();
    isWorking = false;
    cancel.hidden = bar.hidden = true;
    runs.disabled = false;
    dialog.dataset.state = event.state;
    if (event.state === 'done') {
      const stacks = event.result?.stacks ?? [];
      state.textContent = `done${event.failed ? ', with failures' : ''}: ` + stacks.map((/** @type {Record<string, any>} */ stack) =>
        `${stack.file} of ${stack.frames} of ${stack.lights} lights, FWHM ${stack.fwhm.toFixed(2)}`).join('; ');
      results.replaceChildren(make('button', { type: 'button', onclick: () => { dialog.close(); reload().catch(tell); } }, 'Look at the results'));
    } else state.textContent = event.state === 'cancelled' ? 'cancelled; the next run goes on from here' : event.error;
    document.dispatchEvent(new CustomEvent('worked', { detail: event }));
  }
  runs.addEventListener('click', async () => {
    await planned;  // a field that was left by this click has changed it
    if (!isSound) return;
    if (exists && !confirm(`${out.value} is there already. What a run of the same lights made is replaced; go on?`)) return;
    try {
      measured.replaceChildren();
      results.replaceChildren();
      warnings.replaceChildren();
      const { last } = await get('work');
      await post('plan/run', body());
      follow(last);
    } catch (error) {
      tell(error);
    }
  });
  cancel.addEventListener('click', () => post('work/cancel', {}).catch(tell));
  close.addEventListener('click', () => dialog.close());
  which.addEventListener('change', plan);
  out.addEventListener('change', plan);

  addTool('Session', 'what the frames are for, and their run', async () => {
    dialog.showModal();
    plan();
    const work = await get('work');
    if (work.state === 'working' && !isWorking) follow(0);
  });
}
