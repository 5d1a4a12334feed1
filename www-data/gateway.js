// The start page's link to the gateway that served it: one Thrift call in JSON, posted to "/".
'use strict';

const tarnGateway = (() => {
  let nextSeqid = 1;

  // Posts one call. Gives the message text as posted, the reply text as it came, and the
  // reply's result struct. Rejects with an Error whose text says what went wrong (no answer,
  // an HTTP status, an exception message of the service) and which carries `sent` and, when
  // a reply came, `received`.
  async function exchange(method, args = {}) {
    const seqid = nextSeqid++;
    const sent = JSON.stringify([1, method, 1, seqid, args]);
    const fail = (text, received) => Object.assign(new Error(text), { sent, received });
    let reply;
    try {
      reply = await fetch('/', {
        method: 'POST',
        headers: { 'Content-Type': 'application/x-thrift' },
        body: sent,
        cache: 'no-store',
      });
    } catch (e) {
      throw fail('no answer from the gateway');
    }
    const received = await reply.text();
    if (!reply.ok) throw fail('the gateway answered HTTP ' + reply.status, received);
    let answer;
    try {
      answer = JSON.parse(received);
    } catch (e) {
      answer = null;
    }
    if (!Array.isArray(answer) || answer.length !== 5 || answer[3] !== seqid) {
      throw fail('the reply is not a Thrift message for this call', received);
    }
    if (answer[2] === 3) {
      const text = answer[4]['1'] ? answer[4]['1'].str : 'unknown error';
      throw fail('the gateway refused the call: ' + text, received);
    }
    return { sent, received, result: answer[4] };
  }

  // Posts one call and gives the reply's result struct; rejects as exchange() does.
  async function call(method, args = {}) {
    return (await exchange(method, args)).result;
  }

  async function getVersion() {
    const result = await call('get_version');
    if (!result['0'] || typeof result['0'].str !== 'string') {
      throw new Error('the reply holds no version');
    }
    return result['0'].str;
  }

  return { exchange, call, getVersion };
})();

(() => {
  const status = document.getElementById('status');
  const version = document.getElementById('version');
  const address = document.getElementById('address');

  function show(kind, text) {
    status.className = 'status ' + kind;
    status.textContent = text;
  }

  address.textContent = location.protocol.startsWith('http') ? location.host : 'localhost:9090';

  tarnGateway.getVersion().then(
    (text) => {
      version.textContent = text;
      show('ok', 'The gateway is running.');
    },
    (error) => {
      version.textContent = 'unknown';
      show('error', "The gateway can't be reached (" + error.message + '). It may have ' +
           'stopped: start it again (systemctl --user start tarngateway) and reload this page.');
    });
})();
