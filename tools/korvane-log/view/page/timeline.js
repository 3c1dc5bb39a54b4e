// The timeline: a lane per source with the density of its entries, its gaps and the bookmarks
// across all lanes, a time axis, and the rate plots under it; zoom, pan and picking a point.
"use strict";

var KV = window.KV || (window.KV = {});

KV.Timeline = (function () {
  const F = KV.format;
  const laneHeight = 40;
  const axisHeight = 30;
  const rateHeight = 56;
  const palette = ["#1f77b4", "#d95f02", "#2ca02c", "#7b3294", "#e7298a", "#8c564b",
    "#17becf", "#bcbd22", "#525252", "#e6ab02"];

  function element(tag, className, text) {
    const node = document.createElement(tag);
    if (className) {
      node.className = className;
    }
    if (text !== undefined) {
      node.textContent = text;
    }
    return node;
  }

  // Sizes a canvas for its box and the screen's pixel ratio; returns its 2D context in CSS
  // pixels.
  function fit(canvas, width, height) {
    const ratio = window.devicePixelRatio || 1;
    canvas.style.width = width + "px";
    canvas.style.height = height + "px";
    canvas.width = Math.max(1, Math.round(width * ratio));
    canvas.height = Math.max(1, Math.round(height * ratio));
    const context = canvas.getContext("2d");
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    return context;
  }

  class Timeline {
    // `parts`: the elements of the page it draws into (labels, plot, lanes, tooltip, selection,
    // rates, legend). `requestBins(from, to, count)` gives a promise of bins; `onPick(source,
    // time)` hears of a click on a lane.
    constructor(parts, requestBins, onPick) {
      this.parts = parts;
      this.requestBins = requestBins;
      this.onPick = onPick;
      this.sources = [];
      this.bookmarks = [];
      this.bins = null;
      this.view = { from: 0, to: 1000 };
      this.extent = { from: 0, to: 1000 };
      this.minSpan = 10;
      this.zone = "UTC";
      this.requested = 0;
      this.drawn = 0;
      this.version = 0;
      this.listen();
      window.addEventListener("resize", () => this.refetch());
    }

    colorOf(index) {
      return palette[index % palette.length];
    }

    // Takes the sources (with their gaps) and bookmarks of a new summary; keeps the view.
    setData(sources, bookmarks, extent, zone, minSpan) {
      const known = this.sources.map((s) => s.id).join(",");
      this.sources = sources;
      this.bookmarks = bookmarks.filter((b) => b.time !== null);
      this.extent = extent;
      this.zone = zone;
      this.minSpan = minSpan;
      if (known !== sources.map((s) => s.id).join(",")) {
        this.bins = null;
      }
      this.renderLabels();
    }

    renderLabels() {
      const labels = this.parts.labels;
      labels.replaceChildren();
      this.sources.forEach((source, index) => {
        const label = element("div", "lane-label");
        label.dataset.sourceId = source.id;
        label.style.height = laneHeight + "px";
        const swatch = element("span", "swatch");
        swatch.style.background = this.colorOf(index);
        const name = element("span", "lane-name", source.name);
        name.title = source.name;
        const meta = element("span", "lane-meta");
        const type = source.type === null ? "type ?" : "type " + source.type;
        meta.append(element("span", "lane-type", type),
          " \u00b7 ", element("span", "lane-count", F.count(source.count) + " entries"));
        if (source.gapCount > 0) {
          meta.append(" \u00b7 ", element("span", "lane-gaps",
            source.gapCount + (source.gapCount === 1 ? " gap" : " gaps")));
        }
        label.append(swatch, name, meta);
        labels.append(label);
      });
      labels.append(element("div", "axis-label", "time (" + this.zone + ")"));
    }

    // The width of the plot in CSS pixels.
    width() {
      return Math.max(100, this.parts.plot.clientWidth);
    }

    timeAt(x) {
      return this.view.from + (x / this.width()) * (this.view.to - this.view.from);
    }

    xOf(time) {
      return ((time - this.view.from) / (this.view.to - this.view.from)) * this.width();
    }

    // Shows [from, to), within reason: never narrower than `minSpan`, never far off the
    // recording. Asks for bins for it.
    setView(from, to) {
      let span = Math.max(to - from, this.minSpan);
      const whole = Math.max(this.extent.to - this.extent.from, this.minSpan);
      span = Math.min(span, whole * 1.5);
      let start = (from + to) / 2 - span / 2;
      start = Math.max(this.extent.from - span / 2, Math.min(start, this.extent.to - span / 2));
      this.view = { from: Math.floor(start), to: Math.ceil(start + span) };
      this.draw();
      this.refetch();
    }

    showAll() {
      const span = Math.max(this.extent.to - this.extent.from, this.minSpan);
      const margin = span * 0.02;
      this.setView(this.extent.from - margin, this.extent.from + span + margin);
    }

    zoom(factor, aroundX) {
      const pivot = this.timeAt(aroundX === undefined ? this.width() / 2 : aroundX);
      this.setView(pivot - (pivot - this.view.from) * factor,
        pivot + (this.view.to - pivot) * factor);
    }

    // Asks for the bins of the view; an answer for an older view is dropped. The page marks
    // each drawing of fresh bins on <body data-drawn>, with the version of the summary it
    // belongs to, which tests and benchmarks wait for.
    refetch() {
      const ticket = ++this.requested;
      const view = this.view;
      const version = this.version;
      const count = Math.max(10, Math.floor(this.width() / 2));
      Promise.resolve(this.requestBins(view.from, view.to, count)).then((bins) => {
        if (ticket !== this.requested) {
          return;
        }
        this.bins = bins;
        this.draw();
        this.drawn += 1;
        document.body.dataset.drawnAt = String(performance.now());
        document.body.dataset.drawnVersion = String(version);
        document.body.dataset.drawn = String(this.drawn);
        document.body.dataset.viewFrom = String(view.from);
        document.body.dataset.viewTo = String(view.to);
      }).catch((failure) => {
        if (ticket === this.requested) {
          document.body.dataset.binsError = String(failure);
        }
      });
    }

    draw() {
      this.drawLanes();
      this.drawRates();
    }

    drawLanes() {
      const width = this.width();
      const lanesHeight = this.sources.length * laneHeight;
      const context = fit(this.parts.lanes, width, lanesHeight + axisHeight);
      context.clearRect(0, 0, width, lanesHeight + axisHeight);
      const step = F.niceStep(this.view.to - this.view.from, width, 110);
      const ticks = F.ticks(this.view.from, this.view.to, step, this.zone);
      context.strokeStyle = "#e4e4e4";
      for (const tick of ticks) {
        const x = Math.round(this.xOf(tick)) + 0.5;
        context.beginPath();
        context.moveTo(x, 0);
        context.lineTo(x, lanesHeight);
        context.stroke();
      }
      this.sources.forEach((source, index) => {
        const top = index * laneHeight;
        context.fillStyle = index % 2 ? "#fafafa" : "#ffffff";
        context.globalAlpha = 0.6;
        context.fillRect(0, top, width, laneHeight);
        context.globalAlpha = 1;
        this.drawGaps(context, source, top);
        this.drawDensity(context, source, index, top);
      });
      this.drawBookmarks(context, lanesHeight);
      this.drawAxis(context, ticks, step, lanesHeight, width);
    }

    binsOf(source) {
      return this.bins ? this.bins.sources.find((s) => s.id === source.id) : null;
    }

    // Bars per bin, scaled to the fullest bin of the lane in view, by square root, so that a
    // source of 1 Hz and one of 1 kHz both read, and one entry still shows.
    drawDensity(context, source, index, top) {
      const of = this.binsOf(source);
      if (!of) {
        return;
      }
      const bins = this.bins;
      const scale = this.width() / (this.view.to - this.view.from);
      let fullest = 0;
      for (let i = 0; i < bins.count; i += 1) {
        const start = bins.from + i * bins.width;
        if (start + bins.width > this.view.from && start < this.view.to) {
          fullest = Math.max(fullest, of.counts[i]);
        }
      }
      context.fillStyle = this.colorOf(index);
      const room = laneHeight - 8;
      for (let i = 0; i < bins.count; i += 1) {
        if (of.counts[i] === 0) {
          continue;
        }
        const x = (bins.from + i * bins.width - this.view.from) * scale;
        const w = Math.max(1, bins.width * scale - (bins.width * scale > 3 ? 1 : 0));
        const h = Math.max(2, Math.sqrt(of.counts[i] / Math.max(fullest, 1)) * room);
        context.fillRect(x, top + laneHeight - 4 - h, w, h);
      }
    }

    drawGaps(context, source, top) {
      context.fillStyle = "rgba(220, 40, 40, 0.16)";
      for (const [from, to] of source.gaps) {
        if (to < this.view.from || from > this.view.to) {
          continue;
        }
        const x = this.xOf(from);
        const w = Math.max(2, this.xOf(to) - x);
        context.fillRect(x, top + 2, w, laneHeight - 4);
        context.fillStyle = "rgba(200, 30, 30, 0.9)";
        context.fillRect(x, top + laneHeight - 4, w, 2);
        context.fillStyle = "rgba(220, 40, 40, 0.16)";
      }
    }

    drawBookmarks(context, lanesHeight) {
      context.strokeStyle = "#e08a00";
      context.fillStyle = "#e08a00";
      context.setLineDash([4, 3]);
      for (const bookmark of this.bookmarks) {
        const x = Math.round(this.xOf(bookmark.time)) + 0.5;
        if (x < -5 || x > this.width() + 5) {
          continue;
        }
        context.beginPath();
        context.moveTo(x, 0);
        context.lineTo(x, lanesHeight);
        context.stroke();
        context.beginPath();
        context.moveTo(x, 0);
        context.lineTo(x + 7, 4);
        context.lineTo(x, 8);
        context.fill();
      }
      context.setLineDash([]);
    }

    drawAxis(context, ticks, step, top, width) {
      context.fillStyle = "#f3f3f3";
      context.fillRect(0, top, width, axisHeight);
      context.fillStyle = "#333";
      context.strokeStyle = "#888";
      context.font = "12px sans-serif";
      context.textBaseline = "top";
      for (const tick of ticks) {
        const x = Math.round(this.xOf(tick)) + 0.5;
        context.beginPath();
        context.moveTo(x, top);
        context.lineTo(x, top + 5);
        context.stroke();
        context.fillText(F.tickLabel(tick, this.zone, step), x + 3, top + 7);
      }
    }

    // The rates of `source` over the view: its bins summed in groups of 16 of its usual
    // intervals at least, so that a source of 1 Hz draws a rate and not a comb of single
    // entries. Returns {from, width, counts, bytes}, the last two per second.
    ratesOf(source) {
      const bins = this.bins;
      const of = this.binsOf(source);
      if (!of) {
        return null;
      }
      const group = Math.max(1, Math.ceil(bins.count / 150),
        Math.ceil((16 * (source.usualInterval || 0)) / bins.width));
      const width = group * bins.width;
      const groups = Math.ceil(bins.count / group);
      const rates = { from: bins.from, width, counts: new Array(groups).fill(0),
        bytes: new Array(groups).fill(0) };
      for (let i = 0; i < bins.count; i += 1) {
        rates.counts[Math.floor(i / group)] += of.counts[i] * 1000 / width;
        rates.bytes[Math.floor(i / group)] += of.bytes[i] * 1000 / width;
      }
      return rates;
    }

    // A rate plot per source, under the lanes: its entries/s (solid) and bytes/s (dashed) over
    // the view, each scaled to its own highest value in view, which the legend tells.
    drawRates() {
      const width = this.width();
      const height = Math.max(1, this.sources.length) * rateHeight;
      const context = fit(this.parts.rates, width, height);
      context.clearRect(0, 0, width, height);
      const scale = width / (this.view.to - this.view.from);
      const legend = this.parts.legend;
      legend.replaceChildren();
      this.sources.forEach((source, index) => {
        const top = index * rateHeight;
        const room = rateHeight - 10;
        context.fillStyle = index % 2 ? "#fafafa" : "#ffffff";
        context.fillRect(0, top, width, rateHeight);
        const of = this.bins ? this.ratesOf(source) : null;
        const highest = { counts: 0, bytes: 0 };
        for (const field of ["counts", "bytes"]) {
          for (const value of of ? of[field] : []) {
            highest[field] = Math.max(highest[field], value);
          }
          if (highest[field] === 0) {
            continue;
          }
          context.strokeStyle = this.colorOf(index);
          context.lineWidth = field === "counts" ? 1.5 : 1;
          context.setLineDash(field === "counts" ? [] : [4, 3]);
          context.beginPath();
          of[field].forEach((value, i) => {
            const x = (of.from + i * of.width - this.view.from) * scale;
            const y = top + 5 + room - (value / highest[field]) * room;
            if (i === 0) {
              context.moveTo(x, y);
            } else {
              context.lineTo(x, y);
            }
            context.lineTo(x + of.width * scale, y);
          });
          context.stroke();
        }
        context.setLineDash([]);
        context.lineWidth = 1;
        const item = element("div", "legend-item");
        item.style.height = rateHeight + "px";
        const swatch = element("span", "swatch");
        swatch.style.background = this.colorOf(index);
        item.append(swatch, element("span", "legend-name", source.name),
          element("span", "legend-rate", "up to " + F.rate(highest.counts) + " \u2014 entries"),
          element("span", "legend-rate", "up to " + F.rate(highest.bytes, "B/s") + " - - bytes"));
        legend.append(item);
      });
    }

    // What lies under the pointer: a bookmark near it, or the bin of a lane.
    describe(x, y) {
      const lanesHeight = this.sources.length * laneHeight;
      const near = this.bookmarks.filter((b) => Math.abs(this.xOf(b.time) - x) <= 5);
      if (near.length > 0 && y < lanesHeight) {
        return near.map((b) => ({
          title: b.title,
          lines: [b.comment, "entry " + b.entryId + " at " + F.dateTime(b.time, this.zone)],
        }));
      }
      const lane = Math.floor(y / laneHeight);
      if (y >= lanesHeight || lane < 0 || lane >= this.sources.length) {
        return [];
      }
      const time = this.timeAt(x);
      const source = this.sources[lane];
      const lines = [F.dateTime(time, this.zone)];
      const of = this.binsOf(source);
      if (of) {
        const bin = Math.floor((time - this.bins.from) / this.bins.width);
        if (bin >= 0 && bin < this.bins.count) {
          lines.push(F.count(of.counts[bin]) + " entries in " + F.duration(this.bins.width));
        }
      }
      const gap = source.gaps.find(([from, to]) => time >= from && time <= to);
      if (gap) {
        lines.push("gap of " + F.duration(gap[1] - gap[0]));
      }
      lines.push("click: the entries around this point");
      return [{ title: source.name, lines }];
    }

    showTooltip(x, y) {
      const tooltip = this.parts.tooltip;
      const items = this.describe(x, y);
      if (items.length === 0) {
        tooltip.hidden = true;
        return;
      }
      tooltip.replaceChildren();
      for (const item of items) {
        tooltip.append(element("div", "tooltip-title", item.title));
        for (const line of item.lines) {
          if (line) {
            tooltip.append(element("div", "tooltip-line", line));
          }
        }
      }
      tooltip.hidden = false;
      const left = Math.min(x + 14, this.width() - tooltip.offsetWidth - 4);
      tooltip.style.left = Math.max(0, left) + "px";
      tooltip.style.top = (y + 14) + "px";
    }

    listen() {
      const canvas = this.parts.lanes;
      let press = null;
      const position = (event) => {
        const box = canvas.getBoundingClientRect();
        return { x: event.clientX - box.left, y: event.clientY - box.top };
      };
      canvas.addEventListener("wheel", (event) => {
        event.preventDefault();
        this.zoom(Math.exp(Math.max(-1, Math.min(1, event.deltaY * 0.002))), position(event).x);
      }, { passive: false });
      canvas.addEventListener("mousedown", (event) => {
        if (event.button !== 0) {
          return;
        }
        const at = position(event);
        const onAxis = at.y >= this.sources.length * laneHeight;
        press = { ...at, view: this.view, select: onAxis || event.shiftKey, moved: false };
        event.preventDefault();
      });
      window.addEventListener("mousemove", (event) => {
        const at = position(event);
        if (!press) {
          if (at.x >= 0 && at.y >= 0 && at.x <= this.width() && at.y <= canvas.clientHeight) {
            this.showTooltip(at.x, at.y);
          } else {
            this.parts.tooltip.hidden = true;
          }
          return;
        }
        press.moved = press.moved || Math.abs(at.x - press.x) > 3;
        if (!press.moved) {
          return;
        }
        this.parts.tooltip.hidden = true;
        if (press.select) {
          const selection = this.parts.selection;
          selection.hidden = false;
          selection.style.left = Math.min(at.x, press.x) + "px";
          selection.style.width = Math.abs(at.x - press.x) + "px";
        } else {
          const shift = ((at.x - press.x) / this.width()) * (press.view.to - press.view.from);
          this.view = { from: press.view.from - shift, to: press.view.to - shift };
          this.draw();
        }
      });
      window.addEventListener("mouseup", (event) => {
        if (!press) {
          return;
        }
        const at = position(event);
        const done = press;
        press = null;
        this.parts.selection.hidden = true;
        if (!done.moved) {
          const lane = Math.floor(at.y / laneHeight);
          if (!done.select && lane >= 0 && lane < this.sources.length) {
            this.onPick(this.sources[lane], Math.round(this.timeAt(at.x)));
          }
        } else if (done.select) {
          this.setView(this.timeAt(Math.min(at.x, done.x)), this.timeAt(Math.max(at.x, done.x)));
        } else {
          this.setView(this.view.from, this.view.to);
        }
      });
    }
  }

  return Timeline;
}());
