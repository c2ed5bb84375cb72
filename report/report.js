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
  var state = {sort: "", desc: false, scores: [true, true, true, true, true, true],
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
    if (state.sort) parts.push("sort=" + (state.desc ? "-" : "") + state.sort);
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
    if (r[8].length)
      html += "<tr class=\"issues\"><td colspan=\"" + cols.length + "\"><ul><li>" +
              r[8].map(esc).join("</li><li>") + "</li></ul></td></tr>";
    return html;
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
  window.addEventListener("beforeprint", function () { render(true); });
  window.addEventListener("afterprint", function () { render(false); });
  update(true);
  // When the first page was on screen, in ms since the page began to load.
  document.body.setAttribute("data-shown-ms", String(Math.round(performance.now())));
})();
