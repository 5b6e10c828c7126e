// Stars, marked with their widths.
import { get } from './api.js';
import { addPanel, addTool, make, onKey, pretty, tell } from './dom.js';

/** So many of the brightest are marked at once: more would hide the image. */
const most = 250;

/** @param {import('./image.js').ImageView} view */
export function addStars(view) {
  /** @type {any} */
  let found = null;
  let on = false;
  const text = make('div', { className: 'faint' }, 'Press s to find them.');
  addPanel('Stars', false, text);

  const load = async () => {
    const info = view.info;
    if (!info || found) return;
    text.textContent = 'looking for stars …';
    try {
      const answer = await get('image/stars', { id: info.id });
      if (view.info?.id !== info.id) return;
      found = answer;
      const arc = info.scale ? ` (${(found.fwhm * info.scale).toFixed(2)}″)` : '';
      text.replaceChildren(make('table', {}, ...[
        ['Stars', String(found.count)], ['FWHM', `${found.fwhm.toFixed(2)} px${arc}`],
        ['Elongation', found.elongation.toFixed(2)], ['Sky', pretty(found.sky)], ['Noise', pretty(found.noise)],
      ].map(([name, value]) => make('tr', {}, make('th', {}, name), make('td', {}, value)))));
      view.redraw();
    } catch (error) {
      text.textContent = '';
      tell(error);
    }
  };
  const toggle = () => {
    on = !on;
    tool.setAttribute('aria-pressed', String(on));
    if (on) load();
    view.redraw();
  };
  const tool = addTool('Stars', 'mark the stars with their FWHM (s)', toggle);
  onKey('s', 'stars', toggle);
  view.addEventListener('open', () => {
    found = null;
    text.textContent = 'Press s to find them.';
    if (on) load();
  });
  view.addLayer((context) => {
    if (!on || !found) return;
    const scale = view.scale() / devicePixelRatio, seen = view.seen();
    const labels = scale >= 1;
    context.lineWidth = 1.2;
    context.font = '11px system-ui, sans-serif';
    let marked = 0;
    for (const star of found.list) {
      if (marked === most) break;
      if (star.x < seen.left || star.x > seen.right || star.y < seen.top || star.y > seen.bottom) continue;
      ++marked;
      // Whole numbers are the centres of pixels.
      const at = view.toStage(star.x + 0.5, star.y + 0.5), radius = Math.max(1.5 * star.fwhm * scale, 4);
      context.strokeStyle = context.fillStyle = star.flags ? '#ff8d85' : '#7fd69b';
      context.beginPath();
      context.arc(at.x, at.y, radius, 0, 2 * Math.PI);
      context.stroke();
      if (labels) context.fillText(star.fwhm.toFixed(2), at.x + radius + 3, at.y + 4);
    }
  });
}
