// The page: asks the server of `korvane-log view` (or reads the data block of a report) and
// shows the file's identity, thumbnail, timeline, entries and tables, and follows the file
// while it grows. Text from the file only ever becomes textContent.
"use strict";

var KV = window.KV || (window.KV = {});

(function () {
  const F = KV.format;
  const $ = (id) => document.getElementById(id);
  const payloadShown = 65536;

  function element(tag, className, text) {
    const node = document.createElement(tag);
    if (className) {
      node.className = className;
    }
    if (text !== undefined && text !== null) {
      node.textContent = text;
    }
    return node;
  }

  async function fetched(url, as) {
    const response = await fetch(url, { cache: "no-store" });
    if (!response.ok) {
      throw new Error(url + ": " + response.status + " " + (await response.text()));
    }
    return as === "bytes" ? new Uint8Array(await response.arrayBuffer()) : response.json();
  }

  // Where the data comes from: the server, or the data block of a report.
  function serverSource() {
    return {
      live: true,
      summary: () => fetched("api/summary"),
      state: () => fetched("api/live"),
      bins: (from, to, count) => fetched(`api/bins?from=${from}&to=${to}&bins=${count}`),
      entries: (source, at, count) => fetched(`api/entries?at=${at}&count=${count}` +
        (source === null ? "" : `&source=${source}`)),
      payload: (id) => fetched(`api/payload?id=${id}`, "bytes"),
      payloadUrl: (id) => `api/payload?id=${id}`,
      resourceUrl: (name) => "api/resource?name=" + encodeURIComponent(name),
      thumbnail: () => fetched("api/thumbnail", "bytes"),
    };
  }

  function reportSource(data) {
    const sources = data.cells.sources.map((s) => ({ id: s.id, cells: F.expandCells(s) }));
    return {
      live: false,
      summary: async () => data,
      bins: async (from, to, count) => F.binsFromCells(sources, data.cells.width, from, to, count),
      entries: null,
      thumbnail: async () => Uint8Array.from(atob(data.thumbnail.data), (c) => c.charCodeAt(0)),
    };
  }

  const block = $("report-data");
  const source = block ? reportSource(JSON.parse(block.textContent)) : serverSource();
  document.body.classList.toggle("report", !source.live);

  const timeline = new KV.Timeline({
    labels: $("lane-labels"), plot: $("plot"), lanes: $("lanes"), tooltip: $("tooltip"),
    selection: $("selection"), rates: $("rates"), legend: $("rates-legend"),
  }, (from, to, count) => source.bins(from, to, count), (lane, time) => pick(lane, time));
  KV.timeline = timeline; // for a look from the browser's console, and for tests

  let summary = null;
  let zone = { zone: "UTC", known: false };
  let shownVersion = -1;
  let thumbnailShown = null;
  let picked = null;

  // A table of `headers` and `rows`; a cell is text, a number or a node.
  function fillTable(table, headers, rows, onRow) {
    table.replaceChildren();
    const head = element("tr");
    for (const header of headers) {
      head.append(element("th", "", header));
    }
    table.append(element("thead"));
    table.tHead.append(head);
    const body = element("tbody");
    rows.forEach((row, index) => {
      const line = element("tr");
      for (const cell of row) {
        const td = element("td");
        td.append(cell instanceof Node ? cell : String(cell === null ? "" : cell));
        line.append(td);
      }
      if (onRow) {
        line.classList.add("pickable");
        line.addEventListener("click", () => onRow(index, line));
      }
      body.append(line);
    });
    table.append(body);
  }

  function section(id, visible) {
    $(id).hidden = !visible;
  }

  function showIdentity() {
    const identity = summary.identity;
    const entries = summary.entries;
    const path = summary.file.path;
    $("file-name").textContent = path.split("/").pop();
    $("file-name").title = path;
    document.title = path.split("/").pop() + " \u2014 korvane-log view";
    const level = identity.compressionLevel;
    const application = [identity.application, identity.applicationVersion]
      .filter((v) => v !== null).join(" ");
    const span = entries.lastTime - entries.firstTime;
    const rows = [
      ["Application", application || "(unknown)"],
      ["Time zone", (identity.timeZone === null ? "(none)" : identity.timeZone) +
        (zone.known ? "" : " \u2014 times shown in UTC")],
      ["Compression", level === null || level === "0" ? "none"
        : level === "-1" ? "default (-1)" : "level " + level],
      ["Log version", identity.logVersion === null ? "(none)" : identity.logVersion],
      ["Created", identity.created === null || isNaN(Number(identity.created)) ? "(unknown)"
        : F.dateTime(Number(identity.created), zone.zone)],
      ["Entries", entries.count === 0 ? "none"
        : F.count(entries.count) + ", ids " + entries.firstId + " to " + entries.lastId],
      ["Time span", entries.count === 0 ? "\u2014" : F.dateTime(entries.firstTime, zone.zone) +
        " to " + F.dateTime(entries.lastTime, zone.zone) + " (" + F.duration(span) + ")"],
      ["Size", F.size(summary.file.size)],
    ];
    const list = $("identity-list");
    list.replaceChildren();
    for (const [term, value] of rows) {
      const item = element("div", "identity-item");
      item.append(element("dt", "", term), element("dd", "", String(value)));
      list.append(item);
    }
  }

  async function showThumbnail() {
    const box = $("thumbnail");
    const about = summary.thumbnail;
    const key = about ? about.size + ":" + about.type : "none";
    if (key === thumbnailShown) {
      return;
    }
    thumbnailShown = key;
    box.replaceChildren();
    if (!about) {
      box.append(element("span", "muted", "no thumbnail"));
      return;
    }
    if (!about.type || (!source.live && !about.data)) {
      box.append(element("span", "muted", "thumbnail: " + F.size(about.size) + ", not an image"));
      return;
    }
    box.append(await imageOf(await source.thumbnail(), "thumbnail"));
  }

  // An <img> or, for PGM and PPM, a <canvas> of `bytes`; a note when they cannot be shown.
  async function imageOf(bytes, alt) {
    const type = F.imageType(bytes);
    if (type === "image/x-portable-anymap") {
      const image = F.decodePnm(bytes);
      if (!image) {
        return element("span", "muted", "a PGM/PPM image that cannot be read");
      }
      const canvas = element("canvas", "image");
      canvas.width = image.width;
      canvas.height = image.height;
      const pixels = new ImageData(image.rgba, image.width, image.height);
      canvas.getContext("2d").putImageData(pixels, 0, 0);
      return canvas;
    }
    if (!type) {
      return element("span", "muted", "not an image");
    }
    const img = element("img", "image");
    img.alt = alt;
    // The blob is typed by its own first bytes as an image: it can only ever be drawn.
    img.src = URL.createObjectURL(new Blob([bytes], { type }));
    return img;
  }

  function sourceName(id) {
    const found = summary.sources.find((s) => s.id === id);
    return found ? found.name : "#" + id;
  }

  function showTables() {
    const gaps = [];
    for (const s of summary.sources) {
      for (const [from, to] of s.gaps) {
        gaps.push({ source: s, from, to });
      }
    }
    gaps.sort((a, b) => a.from - b.from);
    fillTable($("gaps-table"), ["Source", "Starts", "Length", "Ends", "Usual interval"],
      gaps.map((g) => [g.source.name, F.dateTime(g.from, zone.zone), F.duration(g.to - g.from),
        F.dateTime(g.to, zone.zone), F.duration(g.source.usualInterval)]),
      (index) => timeline.setView(gaps[index].from - (gaps[index].to - gaps[index].from),
        gaps[index].to + (gaps[index].to - gaps[index].from)));
    const notes = summary.sources.filter((s) => s.gapCount > s.gaps.length || !s.gapsExact)
      .map((s) => s.name + ": " + (s.gapCount > s.gaps.length
        ? `the ${s.gaps.length} longest of ${s.gapCount} gaps listed. ` : "") +
        (s.gapsExact ? ""
          : `pauses shorter than ${F.duration(summary.cellWidth)} may be missing.`));
    $("gaps-note").textContent = (gaps.length === 0 ? "No gaps. " : "") +
      "A gap is a pause of more than 4 times the source's usual interval, 100 ms at least. " +
      notes.join(" ");

    const bookmarks = summary.bookmarks;
    fillTable($("bookmarks-table"), ["Entry", "Time", "Title", "Comment"],
      bookmarks.map((b) => [b.entryId,
        b.time === null ? "(no such entry)" : F.dateTime(b.time, zone.zone), b.title, b.comment]),
      (index) => {
        const time = bookmarks[index].time;
        if (time !== null) {
          const span = timeline.view.to - timeline.view.from;
          timeline.setView(time - span / 2, time + span / 2);
        }
      });
    section("bookmarks-section", bookmarks.length > 0);

    fillTable($("sources-table"), ["Source", "Id", "Type", "Entries", "Bytes (stored)",
      "First entry", "Last entry", "Usual interval", "Properties"],
    summary.sources.map((s) => [s.name, s.id, s.type === null ? "?" : s.type, F.count(s.count),
      F.size(s.bytes || 0), s.count ? F.dateTime(s.firstTime, zone.zone) : "",
      s.count ? F.dateTime(s.lastTime, zone.zone) : "",
      s.count > 1 ? F.duration(s.usualInterval) : "",
      s.properties.map((p) => p.key + " = " + p.value).join("; ")]));

    fillTable($("metadata-table"), ["Key", "Value", "Kind"],
      summary.metadata.map((m) => [m.key, m.value, m.kind]));

    fillTable($("resources-table"), ["Name", "Size", ""], summary.resources.map((r) => {
      if (!source.live) {
        return [r.name, F.size(r.size), ""];
      }
      const link = element("a", "", "download");
      link.href = source.resourceUrl(r.name);
      link.download = r.name;
      return [r.name, F.size(r.size), link];
    }));
    section("resources-section", summary.resources.length > 0);
  }

  function extentOf() {
    const e = summary.entries;
    if (e.count > 0) {
      return { from: e.firstTime, to: Math.max(e.lastTime, e.firstTime + 1) };
    }
    const created = Number(summary.identity.created);
    const start = isNaN(created) ? Date.now() : created;
    return { from: start, to: start + 1000 };
  }

  // Draws a new summary. A view that showed the whole recording shows the whole new one; a view
  // that reached its end moves along with it; any other view stays where the reader put it.
  function showSummary(next) {
    const before = summary ? extentOf() : null;
    const view = timeline.view;
    summary = next;
    shownVersion = next.version;
    zone = F.zone(summary.identity.timeZone);
    showIdentity();
    showTables();
    showThumbnail().catch(() => {});
    const extent = extentOf();
    const minSpan = source.live ? 10 : Math.max(10, summary.cells.width * 20);
    timeline.version = next.version;
    timeline.setData(summary.sources, summary.bookmarks, extent, zone.zone, minSpan);
    if (!before || (view.from <= before.from && view.to >= before.to)) {
      timeline.showAll();
    } else if (view.to >= before.to) {
      const shift = extent.to - before.to;
      timeline.setView(view.from + shift, view.to + shift);
    } else {
      timeline.setView(view.from, view.to);
    }
    document.body.dataset.version = String(shownVersion);
  }

  function showState(state) {
    const banner = $("banner");
    banner.classList.toggle("gone", state.state === "gone");
    if (state.state === "counting") {
      banner.textContent =
        `Counting the entries: ${F.count(state.counted)} of ${F.count(state.total)}`;
    } else if (state.state === "gone") {
      banner.textContent = "The file " + state.reason + "; the page shows it as it was.";
    }
    banner.hidden = state.state === "ready";
    $("live").hidden = state.state !== "ready";
    document.body.dataset.state = state.state;
  }

  async function follow() {
    let state = null;
    try {
      state = await source.state();
      if (state.version !== shownVersion) {
        showSummary(await source.summary());
      }
      showState(state);
    } catch (failure) {
      $("banner").hidden = false;
      $("banner").textContent = "The server does not answer: korvane-log view has ended.";
      $("live").hidden = true;
      return;
    }
    if (state.state !== "gone") {
      setTimeout(follow, state.state === "counting" ? 150 : 400);
    }
  }

  // The entries around `time` of the lane that was clicked, or of all sources.
  async function pick(lane, time) {
    picked = { lane, time };
    section("entries-section", true);
    const table = $("entries-table");
    const all = $("all-sources").checked;
    $("entries-title").textContent = "Entries around " + F.dateTime(time, zone.zone) +
      (all ? ", all sources" : ", " + lane.name);
    if (!source.entries) {
      table.replaceChildren();
      $("entries-note").textContent =
        "A report holds no entries: open the file with korvane-log view to see them.";
      return;
    }
    $("entries-note").textContent = "Choose an entry to see its payload.";
    const answer = await source.entries(all ? null : lane.id, time, 24);
    const entries = answer.entries;
    const nearest = entries.reduce((best, e, i) =>
      (best < 0 || Math.abs(e.time - time) < Math.abs(entries[best].time - time) ? i : best), -1);
    fillTable(table, ["Id", "Time", "Source", "Type", "Size"],
      entries.map((e) => [e.id, F.dateTime(e.time, zone.zone), sourceName(e.source), e.type,
        e.size === null ? "?" : F.size(e.size)]),
      (index, row) => {
        for (const other of table.querySelectorAll("tr.chosen")) {
          other.classList.remove("chosen");
        }
        row.classList.add("chosen");
        showPayload(entries[index]).catch((failure) => {
          $("payload-title").textContent = String(failure);
        });
      });
    if (nearest >= 0) {
      table.tBodies[0].rows[nearest].classList.add("nearest");
    }
  }

  async function showPayload(entry) {
    section("payload-section", true);
    const bytes = await source.payload(entry.id);
    const about = [`Entry ${entry.id}`, sourceName(entry.source), `type ${entry.type}`,
      F.size(bytes.length), F.dateTime(entry.time, zone.zone)];
    $("payload-title").textContent = about.join(" \u00b7 ");
    const link = $("payload-download");
    link.href = source.payloadUrl(entry.id);
    link.download = `entry-${entry.id}.bin`;
    const cut = bytes.length > payloadShown
      ? ` (the first ${F.size(payloadShown)} of ${F.size(bytes.length)})` : "";
    $("payload-hex-title").textContent = "Hex" + cut;
    $("payload-text-title").textContent = "Text" + cut;
    $("payload-hex").textContent = F.hexDump(bytes, payloadShown);
    $("payload-text").textContent = F.text(bytes.subarray(0, payloadShown));
    const preview = $("payload-image");
    preview.replaceChildren();
    if (F.imageType(bytes)) {
      preview.append(await imageOf(bytes, "entry " + entry.id));
    }
    preview.hidden = preview.childElementCount === 0;
  }

  $("show-all").addEventListener("click", () => timeline.showAll());
  $("zoom-in").addEventListener("click", () => timeline.zoom(0.5));
  $("zoom-out").addEventListener("click", () => timeline.zoom(2));
  $("all-sources").addEventListener("change", () => {
    if (picked) {
      pick(picked.lane, picked.time);
    }
  });

  if (source.live) {
    follow();
  } else {
    $("live").hidden = true;
    $("report-note").hidden = false;
    source.summary().then((data) => {
      showSummary(data);
      document.body.dataset.state = "ready";
    });
  }
}());
