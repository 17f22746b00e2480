const ended = {{figures}};
const history_ = [];
const text = value => String(value).replace(/[&<>"']/g, c => '&#' + c.charCodeAt(0) + ';');
const bytes = n => n < 1e6 ? (n / 1e3).toFixed(0) + ' kB' : n < 1e9 ? (n / 1e6).toFixed(1) + ' MB' : (n / 1e9).toFixed(2) + ' GB';
const recent = []; // the figures of the last seconds
let begun = false;

function duration(seconds) {
  const s = Math.floor(seconds), pad = n => String(n).padStart(2, '0');
  return Math.floor(s / 3600) + ':' + pad(Math.floor(s / 60) % 60) + ':' + pad(s % 60);
}

function show(now) {
  const silent = now.state === 'live' && now.withoutInputSeconds > 2;
  const lines = [now.state === 'waiting' ? 'waiting for input' : now.state === 'ended' ? 'ended after ' + duration(now.seconds)
    : (silent ? 'no input since ' + now.withoutInputSeconds.toFixed(0) + ' s' : 'live') + ', for ' + duration(now.seconds)];
  if (now.width) lines[0] += '; source ' + now.width + 'x' + now.height + ', ' + now.frameRate.toFixed(2)
    + ' pictures a second' + (now.sound ? ', with ' + now.sound : ', no sound');
  if (now.state === 'live') lines.push(now.picturesPerSecond.toFixed(1) + ' pictures a second; behind by '
    + (now.behindMilliseconds / 1000).toFixed(1) + ' s; latency of a picture ' + now.latencyMilliseconds.toFixed(0)
    + ' ms, from a segment\u2019s first picture to its listing ' + now.segmentLatencySeconds.toFixed(1) + ' s');
  lines.push(now.pictures + ' pictures, ' + bytes(now.bytesRead) + ' read, ' + bytes(now.bytesServed) + ' served in '
    + now.requests + ' requests');
  if (now.jumps + now.damagedPackets + now.timesShed > 0) lines.push(now.jumps + ' jumps of the source\u2019s times, '
    + now.damagedPackets + ' unusable packets, renditions left out ' + now.timesShed + ' times');
  document.querySelector('#state').innerHTML = lines.map(text).join('<br>');

  const cells = (kind, row) => '<tr>' + row.map(cell => '<' + kind + '>' + cell + '</' + kind + '>').join('') + '</tr>';
  const rate = i => {
    const since = now.state === 'live' && recent.find(r => r.renditions[i]) || { seconds: 0, renditions: [] };
    const seconds = now.seconds - since.seconds;
    const count = now.renditions[i].bytes - (since.renditions[i] ? since.renditions[i].bytes : 0);
    return seconds > 0 ? (count * 8 / seconds / 1000).toFixed(0) : '-';
  };
  document.querySelector('#renditions').innerHTML = '<thead>'
    + cells('th', ['rendition', 'state', 'pictures', 'skipped', 'failed', 'kbit/s', 'target', 'ms/picture', 'all']) + '</thead><tbody>'
    + now.renditions.map((r, i) => cells('td', ['<span class="key s' + i % 6 + '"></span>' + text(r.size),
      now.state === 'ended' ? 'ended' : r.made ? 'made' : 'left out', r.pictures, r.skipped, r.failed, rate(i),
      (r.targetBitrate / 1000).toFixed(0), r.encodeMilliseconds.toFixed(2), bytes(r.bytes)])).join('') + '</tbody>';

  history_.push({ at: now.seconds, values: [now.picturesPerSecond, now.behindMilliseconds / 1000] });
  while (history_.length > 300) history_.shift();
  plot(document.querySelector('#history'), ['pictures a second', 'behind by, in seconds']);
}

// A line for each figure, each on a scale of its own that is written beside it.
function plot(place, names) {
  const width = 1000, height = 90, from = history_[0].at, span = Math.max(60, history_[history_.length - 1].at - from);
  place.innerHTML = names.map((name, k) => {
    const most = Math.max(1, ...history_.map(h => h.values[k]));
    const points = history_.map(h => ((h.at - from) / span * width).toFixed(1) + ','
      + (height - h.values[k] / most * (height - 16)).toFixed(1)).join(' ');
    return '<svg viewBox="0 0 ' + width + ' ' + (height + 8) + '" role="img" aria-label="' + name + '"><line class="grid" x1="0" x2="'
      + width + '" y1="' + height + '" y2="' + height + '"/><polyline class="s' + k + '" style="fill:none" points="' + points
      + '"/><text x="4" y="12">' + name + ', up to ' + most.toFixed(1) + '</text></svg>';
  }).join('');
}

// A player begins when there is something to play, and again when the stream has come back.
function playLive(now) {
  if (begun || now.segments < 2 || !video || !video.canPlayType('application/vnd.apple.mpegurl')) return;
  begun = true;
  choice.options[0].disabled = false;
  note.textContent = '';
  video.muted = true;
  play(choice.options[0]);
  video.play().catch(() => {});
}

if (ended) {
  show(ended);
  document.querySelector('#history').closest('section').hidden = true;
  if (video.canPlayType('application/vnd.apple.mpegurl') && location.protocol !== 'file:') play(choice.options[0]);
} else {
  const poll = async () => {
    try {
      const now = await (await fetch('live.json', { cache: 'no-store' })).json();
      show(now);
      playLive(now);
      recent.push(now);
      if (recent.length > 10) recent.shift();
    } catch (unreachable) {
      document.querySelector('#state').textContent = 'the server does not answer';
    }
  };
  video.addEventListener('error', () => { begun = false; });
  poll();
  setInterval(poll, 1000);
}
