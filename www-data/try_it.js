// The start page's "Try a command" panel: posts send_command the way the web client does and
// shows what went out and what came back. Text from the fields and from the gateway enters the
// page only as text (textContent), never as markup.
'use strict';

(() => {
  const kCommands = { CREATE_PDF: 0, CONVERT_WITH_ASSISTANT: 1 };
  // After this long without a reply the panel says why a reply can be late.
  const kSlowReplyMs = 1500;

  const field = (id) => document.getElementById(id);
  const buttons = Array.from(document.querySelectorAll('#try-form button[data-command]'));
  const result = field('try-result');
  const status = field('try-status');

  field('try-address').textContent =
      location.protocol.startsWith('http') ? location.host : 'localhost:9090';

  // One reference a line, without the blanks around it; a reference given twice goes once,
  // since the command carries a set.
  function references(text) {
    const refs = new Set();
    for (const line of text.split(/\r\n|\r|\n/)) {
      const ref = line.trim();
      if (ref !== '') refs.add(ref);
    }
    return Array.from(refs);
  }

  // The arguments of send_command in Thrift's JSON protocol: field ids as keys, each value
  // tagged with its type; a set is its element type, its count, then its elements.
  function sendCommandArgs(cmd, connection, dmsLocation, refs) {
    return {
      1: { i32: cmd },
      2: { str: connection },
      3: { str: dmsLocation },
      4: { set: ['str', refs.length, ...refs] },
    };
  }

  function show(kind, text) {
    status.className = 'status ' + kind;
    status.textContent = text;
  }

  function documentsText(count) {
    return count === 1 ? '1 reference' : count + ' references';
  }

  async function send(command) {
    const refs = references(field('try-refs').value);
    const args = sendCommandArgs(kCommands[command], field('try-connection').value,
                                 field('try-location').value, refs);
    const what = command + ' with ' + documentsText(refs.length);
    buttons.forEach((b) => { b.disabled = true; });
    result.hidden = false;
    field('try-sent').textContent = '';
    field('try-reply').textContent = '';
    show('pending', 'Sending ' + what + '\u2026');
    const slow = setTimeout(() => {
      show('pending', 'Sent ' + what + '; no reply yet. The gateway takes a command only when ' +
           'the one before it has ended, and a question of that one may be waiting on the ' +
           'desktop.');
    }, kSlowReplyMs);
    const started = performance.now();
    try {
      const answer = await tarnGateway.exchange('send_command', args);
      field('try-sent').textContent = answer.sent;
      field('try-reply').textContent = answer.received;
      const seconds = ((performance.now() - started) / 1000).toFixed(2);
      show('ok', 'The gateway took ' + what + ' (reply after ' + seconds + ' s). That is all ' +
           'it says: a command is fire-and-forget, and whether the work succeeded shows only in ' +
           'the log and the results below.' +
           (refs.length === 0 ? ' With no references it will only log "nothing to do".' : ''));
    } catch (error) {
      field('try-sent').textContent = error.sent || '';
      field('try-reply').textContent = error.received === undefined ? '(none)' : error.received;
      show('error', 'Not taken: ' + error.message + '.');
    } finally {
      clearTimeout(slow);
      buttons.forEach((b) => { b.disabled = false; });
    }
  }

  // Enter in a field sends nothing: each command has its own button.
  field('try-form').addEventListener('submit', (event) => event.preventDefault());
  for (const button of buttons) {
    button.addEventListener('click', () => send(button.dataset.command));
  }
})();
