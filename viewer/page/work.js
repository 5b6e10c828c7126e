// The server's one long job, as pages follow it.
import { get, post } from './api.js';
import { make, tell } from './dom.js';

/** @typedef {{state: string, title: string, error?: string, result?: any, failed?: boolean}} Ended */

/**
 * Shows how far the job is, and ends it when told to. Follows one that is at work already.
 * @param {HTMLElement} place
 * @param {(ended: Ended) => void} onEnd
 */
export function addWork(place, onEnd) {
  const bar = make('progress', { max: 1, ariaLabel: 'How far the job is' });
  const text = make('span', { className: 'faint' });
  const cancel = make('button', { type: 'button', onclick: () => post('work/cancel', {}).catch(tell) }, 'Cancel');
  const box = make('span', { className: 'work', hidden: true }, bar, text, cancel);
  place.append(box);
  /** @type {EventSource | null} */
  let source = null;

  const follow = () => {
    source?.close();
    const events = (source = new EventSource('work/events?last=0'));
    box.hidden = false;
    bar.removeAttribute('value');
    text.textContent = '';
    events.onmessage = (message) => {
      const event = JSON.parse(message.data);
      if (event.kind === 'progress' && event.total > 0) {
        bar.value = event.step / event.total;
        text.textContent = event.text;
      } else if (event.kind === 'failure') {
        tell(event.text);
      } else if (event.kind === 'end') {
        events.close();
        box.hidden = true;
        if (event.error && event.state !== 'cancelled') tell(event.error);
        onEnd(event);
      }
    };
    // The stream ends with the job; what was said before is not to be heard twice.
    events.onerror = () => events.close();
  };
  get('work').then((state) => state.state === 'working' && follow()).catch(tell);
  return { follow };
}
