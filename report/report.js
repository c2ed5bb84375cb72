"use strict";
(function () {
  var meta = JSON.parse(document.getElementById("meta").textContent);
  var rows = JSON.parse(document.getElementById("clips").textContent);
  var cols = [
    {key: "path", title: "Path", cls: "path", v: function (r) { return r[0]; }},
    {key: "score", title: "Score", cls: "score", v: function (r) { return r[1]; }},
    {key: "worst", title: "Worst severity", v: function (r) { return r[2]; },
     show: function (r) { return r[2] < 0 ? "" : meta.severities[r[2]]; }}
  ];
  meta.categories.forEach(function (name, i) {
    cols.push({key: name, title: name, cls: "n", v: function (r) { return r[3][i]; }});
  });
  cols.push({key: "duration", title: "Duration (s)", cls: "n", v: function (r) { return r[4]; },
             show: function (r) { return r[4] === null ? "" : r[4].toFixed(3); }});
  cols.push({key: "size", title: "Size", cls: "n", v: function (r) { return r[5]; }});
  cols.push({key: "hash", title: "Hash256", cls: "key", v: function (r) { return r[6]; }});
  cols.push({key: "fkey", title: "FKey", cls: "key", v: function (r) { return r[7]; }});
  if (meta.baseline) {
    cols.push({key: "change", title: "Change", cls: "change", v: function (r) { return r[9]; },
               show: function (r) {
                 return r[10] === null || r[9] === "" ? r[9]
                        : r[9] + " (was " + meta.scores[r[10]] + ")"; }});
  }
  // Worst first unless the address asks for another order.
  var state = {sort: "score", desc: false, scores: [true, true, true, true, true, true],
               q: "", change: "", page: 1, size: 100};
  var order = null, shown = [];
  var body = document.querySelector("#table tbody");

  function esc(s) {
    return String(s).replace(/[&<>"]/g, function (c) {
      return {"&": "&amp;", "<": "&lt;", ">": "&gt;", "\"": "&quot;"}[c];
    });
  }
  function column(key) {
    for (var i = 0; i < cols.length; i++) if (cols[i].key === key) return cols[i];
    return null;
  }
  function readHash() {
    location.hash.replace(/^#/, "").split("&").forEach(function (part) {
      var eq = part.indexOf("="); if (eq < 0) return;
      var k = part.slice(0, eq), v = decodeURIComponent(part.slice(eq + 1));
      if (k === "sort") { state.desc = v.charAt(0) === "-"; state.sort = v.replace(/^-/, ""); }
      else if (k === "score") {
        var on = v.split(",");
        state.scores = state.scores.map(function (x, s) { return on.indexOf(String(s)) >= 0; });
      }
      else if (k === "q") state.q = v;
      else if (k === "change") state.change = v;
      else if (k === "page") state.page = Math.max(1, parseInt(v, 10) || 1);
      else if (k === "size") state.size = Math.max(1, parseInt(v, 10) || 100);
    });
    if (!column(state.sort)) state.sort = "";
  }
  function writeHash() {
    var parts = [];
    if (state.sort !== "score" || state.desc) parts.push("sort=" + (state.desc ? "-" : "") + state.sort);
    if (state.scores.indexOf(false) >= 0)
      parts.push("score=" + state.scores.map(function (on, s) { return on ? s : -1; })
                                        .filter(function (s) { return s >= 0; }).join(","));
    if (state.q) parts.push("q=" + encodeURIComponent(state.q));
    if (state.change) parts.push("change=" + state.change);
    if (state.page > 1) parts.push("page=" + state.page);
    if (state.size !== 100) parts.push("size=" + state.size);
    history.replaceState(null, "", parts.length ? "#" + parts.join("&") : location.pathname);
  }
  function sortOrder() {
    order = rows.map(function (r, i) { return i; });
    var c = column(state.sort);
    if (!c) return;
    var dir = state.desc ? -1 : 1;
    order.sort(function (a, b) {
      var x = c.v(rows[a]), y = c.v(rows[b]);
      if (x === null || y === null) {
        if (x !== y) return x === null ? 1 : -1;
      } else if (x < y) return -dir;
      else if (x > y) return dir;
      return a - b;
    });
  }
  function filter() {
    var q = state.q.toLowerCase();
    shown = order.filter(function (i) {
      var r = rows[i];
      return state.scores[r[1]] && (!q || r[0].toLowerCase().indexOf(q) >= 0) &&
             (!state.change || r[9] === state.change);
    });
  }
  function rowHtml(r) {
    var html = "<tr class=\"clip" + (r[9] ? " " + r[9] : "") + "\" data-score=\"" + r[1] + "\">";
    cols.forEach(function (c) {
      var text = c.show ? c.show(r) : c.v(r);
      var style = c.key === "score"
        ? " style=\"background:" + meta.background[r[1]] + ";color:" + meta.text[r[1]] + "\"" : "";
      html += "<td" + (c.cls ? " class=\"" + c.cls + "\"" : "") + style + ">" +
              (c.key === "score" ? meta.scores[r[1]] : esc(text === null ? "" : text)) + "</td>";
    });
    html += "</tr>";
    var facts = factsText(r), line = timeline(r), pics = pictures(r);
    if (r[8].length || facts || line || pics) {
      html += "<tr class=\"issues\"><td colspan=\"" + cols.length + "\">" +
              (facts ? "<p class=\"facts\">" + esc(facts) + "</p>" : "") + line;
      if (r[8].length)
        html += "<ul>" + r[8].map(function (text, i) {
          return "<li data-i=\"" + i + "\">" + esc(text) + "</li>"; }).join("") + "</ul>";
      html += pics + "</td></tr>";
    }
    return html;
  }
  function num(x, digits) { return x === null ? "?" : x.toFixed(digits); }
  // "mpegts; Level 4; Video h264 1920x1080 25 fps, Audio aac 2 ch 48000 Hz; clip 60.000 s".
  function factsText(r) {
    var f = r[11];
    if (!f) return "";
    var parts = f[2].map(function (s) {
      var t = s[0] + (s[1] ? " " + s[1] : "");
      if (s[4] > 0) t += " " + s[4] + "x" + s[5];
      if (s[6] !== null && s[6] > 0) t += " " + (Math.round(s[6] * 1000) / 1000) + " fps";
      if (s[7] > 0) t += " " + s[7] + " ch";
      if (s[8] > 0) t += " " + s[8] + " Hz";
      if (s[3] !== null) t += " " + num(s[3], 3) + " s";
      return t;
    });
    return [f[3] || "", f[0] ? "Level " + f[0] : "", parts.join(", "),
            r[4] === null ? "" : "clip " + r[4].toFixed(3) + " s"]
      .filter(function (x) { return x; }).join("; ");
  }
  // Where stream s begins in the clip, in seconds (0 when a start is unknown).
  function offset(r, s) {
    var f = r[11], st = f && f[2][s];
    return st && st[2] !== null && f[1] !== null ? st[2] - f[1] : 0;
  }
  // The clip's length for its strip: the container's, else the longest stream's.
  function span(r) {
    if (r[4] !== null && r[4] > 0) return r[4];
    var most = 0;
    (r[11] ? r[11][2] : []).forEach(function (st, s) {
      if (st[3] !== null) most = Math.max(most, offset(r, s) + st[3]);
    });
    return most;
  }
  function pct(x) { return (Math.round(Math.max(0, Math.min(100, x)) * 1000) / 1000) + "%"; }
  // One row per video or audio stream (and per other stream with a placed issue); a run is a
  // span, a point a thin mark; taller and redder is worse, so the strip reads without colour.
  function timeline(r) {
    var places = r[12], d = span(r);
    if (!places || !r[11] || !(d > 0)) return "";
    var streams = r[11][2], rows = [];
    streams.forEach(function (st, s) {
      var placed = places.some(function (p) { return p[0] === s && p[2] !== null; });
      if (st[0] === "Video" || st[0] === "Audio" || placed) rows.push(s);
    });
    if (!rows.length) return "";
    var h = 16, svg = "<svg class=\"timeline\" width=\"100%\" height=\"" + (rows.length * h + 2) +
        "\" role=\"img\" aria-label=\"Timeline of the clip\">";
    rows.forEach(function (s, k) {
      var y = k * h + 1, st = streams[s];
      var from = offset(r, s) / d * 100, to = st[3] === null ? 100 : (offset(r, s) + st[3]) / d * 100;
      svg += "<rect class=\"lane\" x=\"" + pct(from) + "\" y=\"" + y + "\" width=\"" +
             pct(to - from) + "\" height=\"" + (h - 2) + "\"><title>Stream " + s + " (" +
             esc(st[0]) + ")</title></rect>";
      places.forEach(function (p, i) {
        if (p[0] !== s || p[2] === null) return;
        var x = (offset(r, s) + p[2]) / d * 100;
        var w = p[3] === null ? 0 : p[3] / d * 100;
        var mh = 6 + 2 * p[1];
        svg += "<rect class=\"mark\" data-i=\"" + i + "\" data-at=\"" + p[2] + "\" x=\"" + pct(x) +
               "\" y=\"" + (y + h - 2 - mh) + "\" width=\"" + (w > 0.4 ? pct(w) : "3") +
               "\" height=\"" + mh + "\" fill=\"" + meta.severityColours[p[1]] + "\"><title>" +
               esc(r[8][i]) + "</title></rect>";
      });
    });
    return svg + "</svg>";
  }
  function pictures(r) {
    var p = r[13];
    if (p === null || p === undefined) return "";
    if (typeof p === "string") return "<p class=\"note\">" + esc(p) + "</p>";
    return "<div class=\"pictures\">" + p.map(function (x) {
      return "<figure><img decoding=\"async\" width=\"160\" src=\"" + x[2] +
             "\" alt=\"" + esc(x[1]) + "\" title=\"" + esc(x[1]) + "\"><figcaption>" +
             x[0].toFixed(2) + " s</figcaption></figure>";
    }).join("") + "</div>";
  }
  function render(everything) {
    var pages = Math.max(1, Math.ceil(shown.length / state.size));
    state.page = Math.min(state.page, pages);
    var from = everything ? 0 : (state.page - 1) * state.size;
    var to = everything ? shown.length : Math.min(shown.length, from + state.size);
    var html = [];
    for (var i = from; i < to; i++) html.push(rowHtml(rows[shown[i]]));
    body.innerHTML = html.join("");
    document.getElementById("pageinfo").textContent = shown.length
      ? "Clips " + (from + 1) + "\u2013" + to + " of " + shown.length +
        (shown.length < rows.length ? " (of " + rows.length + " in all)" : "") +
        ", page " + state.page + " of " + pages
      : "No clip matches";
    document.getElementById("prev").disabled = state.page <= 1;
    document.getElementById("next").disabled = state.page >= pages;
    document.querySelectorAll("#table th").forEach(function (th) {
      th.setAttribute("aria-sort", th.dataset.key !== state.sort ? "none"
                                   : state.desc ? "descending" : "ascending");
    });
  }
  function update(resort) {
    if (resort || !order) sortOrder();
    filter();
    render(false);
    writeHash();
  }

  var head = document.querySelector("#table thead tr");
  cols.forEach(function (c) {
    var th = document.createElement("th");
    th.dataset.key = c.key;
    var button = document.createElement("button");
    button.type = "button";
    button.textContent = c.title;
    button.addEventListener("click", function () {
      state.desc = state.sort === c.key ? !state.desc : false;
      state.sort = c.key;
      state.page = 1;
      update(true);
    });
    th.appendChild(button);
    head.appendChild(th);
  });
  readHash();
  document.querySelectorAll("input[data-score]").forEach(function (box) {
    var s = parseInt(box.dataset.score, 10);
    box.checked = state.scores[s];
    box.addEventListener("change", function () { state.scores[s] = box.checked; state.page = 1; update(false); });
  });
  var q = document.getElementById("q");
  q.value = state.q;
  q.addEventListener("input", function () { state.q = q.value; state.page = 1; update(false); });
  var change = document.getElementById("change");
  if (change) {
    change.value = state.change;
    change.addEventListener("change", function () { state.change = change.value; state.page = 1; update(false); });
  }
  var size = document.getElementById("size");
  if (!Array.prototype.some.call(size.options, function (o) { return o.value === String(state.size); }))
    size.add(new Option(String(state.size), String(state.size)));
  size.value = String(state.size);
  size.addEventListener("change", function () { state.size = parseInt(size.value, 10); state.page = 1; update(false); });
  document.getElementById("prev").addEventListener("click", function () { state.page--; update(false); });
  document.getElementById("next").addEventListener("click", function () { state.page++; update(false); });
  // Printing shows every clip that passes the filter, not only the page on screen.
  // A mark and its issue line light up together; a picture opens large.
  function hot(e, on) {
    var el = e.target.closest ? e.target.closest("[data-i]") : null;
    var td = el && el.closest("td");
    if (!td) return;
    td.querySelectorAll("[data-i=\"" + el.dataset.i + "\"]").forEach(function (x) {
      x.classList.toggle("hot", on);
    });
  }
  // Each picture tells when it was decoded, and how wide it is.
  body.addEventListener("load", function (e) {
    if (e.target.tagName === "IMG") e.target.setAttribute("data-w", e.target.naturalWidth);
  }, true);
  body.addEventListener("mouseover", function (e) { hot(e, true); });
  body.addEventListener("mouseout", function (e) { hot(e, false); });
  var zoom = document.getElementById("zoom");
  body.addEventListener("click", function (e) {
    if (e.target.tagName !== "IMG") return;
    zoom.querySelector("img").src = e.target.src;
    zoom.querySelector("p").textContent = e.target.title;
    zoom.hidden = false;
  });
  zoom.addEventListener("click", function () { zoom.hidden = true; });
  document.addEventListener("keydown", function (e) { if (e.key === "Escape") zoom.hidden = true; });
  window.addEventListener("beforeprint", function () { render(true); });
  window.addEventListener("afterprint", function () { render(false); });
  update(true);
  // When the first page was on screen, in ms since the page began to load.
  document.body.setAttribute("data-shown-ms", String(Math.round(performance.now())));
})();
