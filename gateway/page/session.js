// Who is logged in: the link to the login page, or the button that logs out.
import {onSession, send, session} from './api.js';
import {element} from './dom.js';
import {text} from './texts.js';

async function logOut(button) {
  button.disabled = true;
  try {
    await send('POST', '/logout');
  } catch {
    // The login page tells what is the matter.
  }
  location.assign('/login');
}

// Shows it in `place`, from now on.
export function showSession(place) {
  const show = () => {
    const button = element('button', {type: 'button', id: 'log-out',
      onclick: () => logOut(button)}, text('session.logout'));
    place.replaceChildren(session.isSession ? button :
      element('a', {id: 'log-in', class: 'button', href: '/login'}, text('session.login')));
  };
  onSession(show);
}
