// Who is logged in: the link to the login page, or the button that logs out.
import {onSession, send, session} from './api.js';
import {element} from './dom.js';
import {text} from './texts.js';

async function logOut(button) {
  button.disabled = true;
  try {
    await send('POST', '/logout');
  } catch {
    // The page tells what is the matter.
  }
  location.assign('/');
}

// The login page comes back to what is shown now.
export function logInAddress() {
  return `/login?view=${encodeURIComponent(location.hash)}`;
}

// Shows it in `place`, from now on.
export function showSession(place) {
  const show = () => {
    const button = element('button', {type: 'button', id: 'log-out',
      onclick: () => logOut(button)}, text('session.logout'));
    const link = element('a', {id: 'log-in', class: 'button', href: '/login',
      onclick: (event) => { event.currentTarget.href = logInAddress(); }}, text('session.login'));
    // Without a token there is nothing to log in with.
    place.replaceChildren(...(session.isSession ? [button] : session.needsLogin ? [link] : []));
  };
  onSession(show);
}
