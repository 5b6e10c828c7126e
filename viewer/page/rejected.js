// Where values were rejected, over the stack.
import { address } from './api.js';
import { addPanel, make, onKey } from './dom.js';

/** @param {import('./image.js').ImageView} view @param {import('./run.js').RunView} run */
export function addRejected(view, run) {
  const on = make('input', { type: 'checkbox', id: 'rejected' });
  const slider = make('input', { type: 'range', min: 0, max: 1, step: 0.01, value: 0.8, ariaLabel: 'Opacity of the rejected pixels' });
  const text = make('p', { className: 'faint' });
  const parts = make('div', {},
    make('label', { className: 'row' }, on, ' over the stack (j)'),
    make('div', { className: 'field' }, make('span', {}, 'Opacity'), slider),
    make('p', {}, make('span', { className: 'low' }, '■'), ' too low   ', make('span', { className: 'high' }, '■'), ' too high'));
  addPanel('Rejected pixels', false, parts, text);

  /** The number of the stack that is seen; -1 for anything else, and for one without maps. */
  const stack = () => run.info?.stacks.findIndex((one) => one.maps && one.image === view.info?.id) ?? -1;
  const lay = () => {
    const number = stack(), version = run.info?.version;
    const hasMaps = !!run.info?.stacks.some((one) => one.maps);
    parts.hidden = !hasMaps;
    text.textContent = hasMaps ? '' : 'This run kept no maps of them: korimg run --rejection-maps does.';
    view.cover(on.checked && number >= 0
      ? (level, x, y) => address('run/rejected', { run: run.id, stack: number, level, x, y, overlap: 1, v: version }) : null, Number(slider.value));
  };
  on.addEventListener('change', lay);
  slider.addEventListener('input', () => view.setCover(Number(slider.value)));
  view.addEventListener('open', lay);
  run.addEventListener('load', lay);
  onKey('j', 'rejected pixels over the stack', () => {
    on.checked = !on.checked;
    lay();
  });
}
