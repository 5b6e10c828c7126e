// A folder that is being filled: the stack as it grows, and what became of each frame.
import { address, get, post } from './api.js';
import { addPanel, addTool, find, make, onKey, pretty, tell } from './dom.js';

/** @param {(id: number | undefined) => Promise<void>} openFile */
export async function addLive(openFile) {
  let state = await get('live/state', { begun: 0, after: 0, picture: -1 });
  if (!state.folder) return;
  const picture = make('img', { alt: 'The stack so far', id: 'live' });
  const told = make('p', { role: 'status' }), masters = make('p', { className: 'faint' });
  const rows = make('tbody');
  const name = make('input', { type: 'text', className: 'wide', value: 'live.fits', ariaLabel: 'Name of the new file' });
  const out = make('input', { type: 'text', className: 'wide', value: 'result', ariaLabel: 'Folder for the results' });
  const save = make('button', { type: 'button' }, 'Save stack');
  const stack = make('button', { type: 'button', title: 'what korimg run makes of all frames, with the best reference and outliers told by all' }, 'Stack properly');
  const table = make('table', {}, make('thead', {}, make('tr', {}, ...['', 'frame', 'FWHM', 'stars', 'shift', ''].map((text) => make('th', {}, text)))), rows);
  const panel = addPanel(`Live: ${state.folder}`, true, told, masters, make('div', { className: 'row' }, save, stack), name, out,
    make('div', { className: 'frames', tabIndex: 0 }, table));
  panel.id = 'livepanel';
  find('panels').prepend(panel);
  find('stage').append(picture);

  let isOn = true;
  const show = (/** @type {boolean} */ on) => {
    isOn = on;
    picture.hidden = !on || state.picture === 0;
    tool.setAttribute('aria-pressed', String(on));
  };
  const tool = addTool('Live', 'the stack as it grows (v)', () => show(!isOn));
  onKey('v', 'the stack as it grows', () => show(!isOn));
  picture.addEventListener('click', () => picture.classList.toggle('whole'));
  show(true);

  let shown = 0, count = 0, begun = 0;
  function take() {
    if (state.begun !== begun) {
      begun = state.begun;
      count = 0;
      rows.replaceChildren();
    }
    state.frames.forEach((/** @type {any} */ frame, /** @type {number} */ i) => {
      const number = count + i;
      const begin = make('button', { type: 'button', title: 'begin anew: all others are laid on this frame', ariaLabel: `Begin with ${frame.name}`,
        onclick: () => post('live/begin', { frame: number, begun }).catch(tell) }, '↺');
      rows.prepend(make('tr', { className: frame.added ? '' : 'left', title: frame.status },
        make('td', {}, begin), make('td', {}, frame.name), make('td', {}, frame.fwhm ? frame.fwhm.toFixed(2) : '–'), make('td', {}, String(frame.stars)),
        make('td', {}, frame.added ? `${frame.dx.toFixed(1)}, ${frame.dy.toFixed(1)}` : '–'),
        make('td', {}, frame.added ? `${pretty(Number(frame.seconds.toFixed(2)))} s` : frame.status)));
      while (rows.children.length > 500) rows.lastElementChild?.remove();
      if (frame.added) masters.textContent = frame.masters ? `calibrated by ${frame.masters}` : 'not calibrated: there are no darks, flats or biases';
    });
    count = state.count;
    told.textContent = state.failure || `${state.added} of ${state.count} frames are in the stack` +
      (state.doing ? `; ${state.doing} is being added` : state.ended ? '' : '; waiting for frames');
    panel.dataset.added = String(state.added);
    panel.dataset.count = String(state.count);
    if (state.picture !== shown) {
      shown = state.picture;
      picture.src = address('live/picture', { v: shown });
      show(isOn);
    }
  }
  save.addEventListener('click', async () => {
    try {
      const { id } = await post('live/save', { name: name.value });
      show(false);
      await openFile(id);
    } catch (error) {
      tell(error);
    }
  });
  stack.addEventListener('click', async () => {
    try {
      const { last } = await get('work');
      let { command, exists } = await post('live/stack', { out: out.value });
      if (exists && !confirm(`${out.value} is there already. What was stacked of the frames before is replaced; go on?`)) return;
      if (exists) ({ command } = await post('live/stack', { out: out.value, replace: true }));
      told.title = command;
      const source = new EventSource(address('work/events', { last }));
      source.onmessage = (message) => {
        const event = JSON.parse(message.data);
        if (event.kind === 'progress' && event.total > 0) told.textContent = `${event.text}: ${event.step} of ${event.total}`;
        if (event.kind !== 'end') return;
        source.close();
        panel.dataset.state = event.state;
        if (event.state === 'done') openFile(undefined).catch(tell);
        told.textContent = event.state === 'done' ? `stacked into ${event.result.out}` : event.error;
      };
    } catch (error) {
      tell(error);
    }
  });

  take();
  while (!state.ended) {
    try {
      state = await get('live/state', { begun, after: count, picture: shown });
      take();
    } catch (error) {
      tell(error);
      await new Promise((done) => setTimeout(done, 2000));
    }
  }
}
