// The start page's link to the gateway that served it: one Thrift call in JSON, posted to "/".
'use strict';

const tarnGateway = (() => {
  let nextSeqid = 1;

  // Posts one call and gives the reply's result struct. Rejects with an Error whose text says
  // what went wrong: no answer, an HTTP status, or an exception message of the service.
  async function call(method, args = {}) {
    const seqid = nextSeqid++;
    const message = JSON.stringify([1, method, 1, seqid, args]);
    let reply;
    try {
      reply = await fetch('/', {
        method: 'POST',
        headers: { 'Content-Type': 'application/x-thrift' },
        body: message,
        cache: 'no-store',
      });
    } catch (e) {
      throw new Error('no answer from the gateway');
    }
    if (!reply.ok) throw new Error('the gateway answered HTTP ' + reply.status);
    const answer = JSON.parse(await reply.text());
    if (!Array.isArray(answer) || answer.length !== 5 || answer[3] !== seqid) {
      throw new Error('the reply is not a Thrift message for this call');
    }
    if (answer[2] === 3) {
      const text = answer[4]['1'] ? answer[4]['1'].str : 'unknown error';
      throw new Error('the gateway refused the call: ' + text);
    }
    return answer[4];
  }

  async function getVersion() {
    const result = await call('get_version');
    if (!result['0'] || typeof result['0'].str !== 'string') {
      throw new Error('the reply holds no version');
    }
    return result['0'].str;
  }

  return { call, getVersion };
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
