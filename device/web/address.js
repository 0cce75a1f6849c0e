// After "#" the page's address has a key, or "key", "filter" and "group" as a query has them: what is shown. "password"
// is kept for the tab alone, and taken out of the address, which is seen, remembered and passed on.

const STORED = 'password';

function partsOf(fragment) {
  if (fragment.includes('=')) {
    return new URLSearchParams(fragment);
  }
  try {
    return new URLSearchParams({ key: decodeURIComponent(fragment) });
  } catch {
    return new URLSearchParams({ key: fragment }); // "%" in a key that was typed
  }
}

export function storedPassword() {
  return sessionStorage.getItem(STORED) ?? '';
}

/** { key, filter, group, hasPassword }, of which each may be missing; a password is stored. */
export function takeAddress() {
  const { password, ...shown } = Object.fromEntries(partsOf(location.hash.slice(1)));
  if (password !== undefined) {
    sessionStorage.setItem(STORED, password);
    showAddress(shown);
  }
  return { ...shown, hasPassword: password !== undefined };
}

/** Has the address lead to what is shown, without a step in the browser's history. */
export function showAddress({ key, filter, group }) {
  const parts = new URLSearchParams();
  for (const [name, value] of Object.entries({ key, filter, group })) {
    if (value) {
      parts.set(name, value);
    }
  }
  const isKeyAlone = key && !key.includes('=') && parts.size === 1;
  const fragment = isKeyAlone ? encodeURIComponent(key) : parts.toString();
  history.replaceState(null, '', fragment ? `#${fragment}` : location.pathname);
}
