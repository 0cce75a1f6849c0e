/** element('p', { className: 'note' }, 'text', child): sets properties, not attributes; text is only ever text. */
export function element(tag, properties = {}, ...children) {
  const result = Object.assign(document.createElement(tag), properties);
  result.append(...children);
  return result;
}
