// How the page writes numbers, sizes, times and bytes, and how it reads images and the cells
// of a report. Pure functions: they touch no page.
"use strict";

var KV = window.KV || (window.KV = {});

KV.format = (function () {
  const units = ["B", "KiB", "MiB", "GiB", "TiB"];

  // "512 B", "1.5 KiB", "27.3 MiB".
  function size(bytes) {
    let value = Number(bytes);
    let unit = 0;
    while (value >= 1024 && unit < units.length - 1) {
      value /= 1024;
      unit += 1;
    }
    return unit === 0 ? value + " B" : value.toFixed(value < 10 ? 2 : 1) + " " + units[unit];
  }

  // "12,345".
  function count(value) {
    return Number(value).toLocaleString("en-US");
  }

  // A rate per second, short: "950/s", "1.2k/s", "3.4M/s".
  function rate(perSecond, unit) {
    const suffix = unit || "/s";
    const steps = [[1e9, "G"], [1e6, "M"], [1e3, "k"]];
    for (const [scale, prefix] of steps) {
      if (perSecond >= scale) {
        return (perSecond / scale).toFixed(perSecond >= 10 * scale ? 0 : 1) + prefix + suffix;
      }
    }
    return (perSecond >= 10 || perSecond === 0 ? perSecond.toFixed(0) : perSecond.toFixed(1)) +
      suffix;
  }

  // A span for reading: "850 ms", "6.000 s", "2 min 03 s", "1 h 02 min", "3 d 04 h".
  function duration(ms) {
    const pad = (n) => String(Math.floor(n)).padStart(2, "0");
    if (ms < 1000) {
      return (Number.isInteger(ms) ? ms : ms.toFixed(1)) + " ms";
    }
    if (ms < 60000) {
      return (ms / 1000).toFixed(3) + " s";
    }
    if (ms < 3600000) {
      return Math.floor(ms / 60000) + " min " + pad((ms % 60000) / 1000) + " s";
    }
    if (ms < 86400000) {
      return Math.floor(ms / 3600000) + " h " + pad((ms % 3600000) / 60000) + " min";
    }
    return Math.floor(ms / 86400000) + " d " + pad((ms % 86400000) / 3600000) + " h";
  }

  // The time zone to show times in: the file's when this browser knows it, else UTC.
  function zone(name) {
    if (typeof name === "string" && name !== "") {
      try {
        new Intl.DateTimeFormat("en-GB", { timeZone: name });
        return { zone: name, known: true };
      } catch (unknown) {
        // Falls through to UTC.
      }
    }
    return { zone: "UTC", known: false };
  }

  const formatters = new Map();
  function partsOf(ms, timeZone) {
    let formatter = formatters.get(timeZone);
    if (!formatter) {
      formatter = new Intl.DateTimeFormat("en-GB", {
        timeZone, hourCycle: "h23", year: "numeric", month: "2-digit", day: "2-digit",
        hour: "2-digit", minute: "2-digit", second: "2-digit",
      });
      formatters.set(timeZone, formatter);
    }
    const parts = {};
    for (const part of formatter.formatToParts(new Date(ms))) {
      parts[part.type] = part.value;
    }
    parts.ms = String(((ms % 1000) + 1000) % 1000).padStart(3, "0");
    return parts;
  }

  // "2025-11-22 20:01:02.345" in `timeZone`.
  function dateTime(ms, timeZone) {
    const p = partsOf(ms, timeZone);
    return `${p.year}-${p.month}-${p.day} ${p.hour}:${p.minute}:${p.second}.${p.ms}`;
  }

  // A label of the time axis, as precise as ticks `step` ms apart need.
  function tickLabel(ms, timeZone, step) {
    const p = partsOf(ms, timeZone);
    if (step >= 86400000) {
      return `${p.year}-${p.month}-${p.day}`;
    }
    if (step >= 60000) {
      return `${p.hour}:${p.minute}`;
    }
    if (step >= 1000) {
      return `${p.hour}:${p.minute}:${p.second}`;
    }
    return `${p.minute}:${p.second}.${p.ms}`;
  }

  // How far `timeZone` is ahead of UTC at `ms`, in ms.
  function offset(ms, timeZone) {
    const p = partsOf(ms, timeZone);
    const local = Date.UTC(+p.year, +p.month - 1, +p.day, +p.hour, +p.minute, +p.second);
    return local - (ms - (((ms % 1000) + 1000) % 1000));
  }

  const steps = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 15000, 30000,
    60000, 120000, 300000, 600000, 900000, 1800000, 3600000, 7200000, 10800000, 21600000,
    43200000, 86400000, 172800000, 604800000, 2592000000, 31536000000];

  // The distance of axis ticks that leaves at least `minPixels` between labels.
  function niceStep(spanMs, pixels, minPixels) {
    const wanted = spanMs * minPixels / Math.max(pixels, 1);
    return steps.find((step) => step >= wanted) || Math.ceil(wanted / 31536000000) * 31536000000;
  }

  // Tick times from `from` to `to`, on whole steps of the local time of `timeZone`.
  function ticks(from, to, step, timeZone) {
    const shift = step >= 3600000 ? offset(from, timeZone) : 0;
    const result = [];
    for (let t = Math.ceil((from + shift) / step) * step - shift; t <= to; t += step) {
      result.push(t);
      if (result.length > 1000) {
        break;
      }
    }
    return result;
  }

  // Sixteen bytes a line: offset, hex and the printable characters.
  function hexDump(bytes, limit) {
    const shown = Math.min(bytes.length, limit === undefined ? bytes.length : limit);
    const lines = [];
    for (let at = 0; at < shown; at += 16) {
      const row = bytes.subarray(at, Math.min(at + 16, shown));
      let hex = "";
      let text = "";
      for (let i = 0; i < 16; i += 1) {
        hex += i < row.length ? row[i].toString(16).padStart(2, "0") + " " : "   ";
        if (i === 7) {
          hex += " ";
        }
        if (i < row.length) {
          text += row[i] >= 0x20 && row[i] < 0x7f ? String.fromCharCode(row[i]) : ".";
        }
      }
      lines.push(at.toString(16).padStart(8, "0") + "  " + hex + " |" + text + "|");
    }
    return lines.join("\n");
  }

  // The bytes read as UTF-8, with control characters other than line ends and tabs shown as
  // U+00B7 so that nothing invisible hides in the text.
  function text(bytes) {
    const decoded = new TextDecoder("utf-8", { fatal: false }).decode(bytes);
    return decoded.replace(/[\u0000-\u0008\u000b-\u001f\u007f-\u009f]/g, "\u00b7");
  }

  function startsWith(bytes, prefix, at) {
    const start = at || 0;
    return bytes.length >= start + prefix.length && prefix.every((b, i) => bytes[start + i] === b);
  }

  // The media type of an image that the page can show, told by its first bytes; null for
  // anything else. PGM and PPM are decoded by `decodePnm`.
  function imageType(bytes) {
    if (startsWith(bytes, [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a])) {
      return "image/png";
    }
    if (startsWith(bytes, [0xff, 0xd8, 0xff])) {
      return "image/jpeg";
    }
    if (startsWith(bytes, [0x47, 0x49, 0x46, 0x38])) {
      return "image/gif";
    }
    if (startsWith(bytes, [0x52, 0x49, 0x46, 0x46]) &&
        startsWith(bytes, [0x57, 0x45, 0x42, 0x50], 8)) {
      return "image/webp";
    }
    if (startsWith(bytes, [0x42, 0x4d]) && bytes.length > 26) {
      return "image/bmp";
    }
    if (bytes.length > 3 && bytes[0] === 0x50 && (bytes[1] === 0x35 || bytes[1] === 0x36) &&
        /\s/.test(String.fromCharCode(bytes[2]))) {
      return "image/x-portable-anymap";
    }
    return null;
  }

  // A binary PGM (P5) or PPM (P6) image of 8-bit samples as {width, height, rgba}; null when the
  // bytes are not one or are cut short.
  function decodePnm(bytes) {
    if (bytes.length < 3 || bytes[0] !== 0x50 || (bytes[1] !== 0x35 && bytes[1] !== 0x36)) {
      return null;
    }
    const fields = [];
    let at = 2;
    while (fields.length < 3 && at < bytes.length) {
      const c = bytes[at];
      if (c === 0x23) { // a comment runs to the end of its line
        while (at < bytes.length && bytes[at] !== 0x0a) {
          at += 1;
        }
      } else if (c >= 0x30 && c <= 0x39) {
        let value = 0;
        while (at < bytes.length && bytes[at] >= 0x30 && bytes[at] <= 0x39) {
          value = value * 10 + bytes[at] - 0x30;
          at += 1;
        }
        fields.push(value);
        continue;
      } else if (!/\s/.test(String.fromCharCode(c))) {
        return null;
      }
      at += 1;
    }
    at += 1; // the one whitespace byte after the largest sample value
    const [width, height, largest] = fields;
    const channels = bytes[1] === 0x36 ? 3 : 1;
    if (fields.length < 3 || !width || !height || largest < 1 || largest > 255 ||
        width * height > 1 << 26 || at + width * height * channels > bytes.length) {
      return null;
    }
    const rgba = new Uint8ClampedArray(width * height * 4);
    for (let i = 0; i < width * height; i += 1) {
      for (let c = 0; c < 3; c += 1) {
        rgba[i * 4 + c] = bytes[at + i * channels + (channels === 3 ? c : 0)] * 255 / largest;
      }
      rgba[i * 4 + 3] = 255;
    }
    return { width, height, rgba };
  }

  // The cells of a report, one source's: {starts (differences, in cells), counts, bytes}, as
  // cells of `width` ms with their absolute starts.
  function expandCells(cells) {
    const starts = new Array(cells.starts.length);
    let index = 0;
    for (let i = 0; i < starts.length; i += 1) {
      index += cells.starts[i];
      starts[i] = index;
    }
    return { index: starts, counts: cells.counts, bytes: cells.bytes };
  }

  function floorDiv(a, b) {
    return Math.floor(a / b);
  }

  // Bins over [from, to) from expanded cells of `width` ms, as the server makes them: each bin
  // a whole number of cells, starting at a multiple of its width.
  function binsFromCells(sources, width, from, to, maxBins) {
    const firstIndex = floorDiv(from, width);
    const lastIndex = floorDiv(to - 1, width);
    let perBin = Math.max(1, Math.ceil((lastIndex - firstIndex + 1) / maxBins));
    let startIndex = floorDiv(firstIndex, perBin) * perBin;
    let count = Math.floor((lastIndex - startIndex) / perBin) + 1;
    while (count > maxBins) { // starting at a multiple of the width can take one bin more
      perBin += 1;
      startIndex = floorDiv(firstIndex, perBin) * perBin;
      count = Math.floor((lastIndex - startIndex) / perBin) + 1;
    }
    const endIndex = startIndex + count * perBin;
    const result = { from: startIndex * width, width: perBin * width, count, sources: [] };
    for (const source of sources) {
      const counts = new Array(count).fill(0);
      const bytes = new Array(count).fill(0);
      const cells = source.cells;
      let lo = 0;
      let hi = cells.index.length;
      while (lo < hi) { // the first cell at or after startIndex
        const mid = (lo + hi) >> 1;
        if (cells.index[mid] < startIndex) {
          lo = mid + 1;
        } else {
          hi = mid;
        }
      }
      for (let i = lo; i < cells.index.length && cells.index[i] < endIndex; i += 1) {
        const bin = Math.floor((cells.index[i] - startIndex) / perBin);
        counts[bin] += cells.counts[i];
        bytes[bin] += cells.bytes[i];
      }
      result.sources.push({ id: source.id, counts, bytes });
    }
    return result;
  }

  return {
    size, count, rate, duration, zone, dateTime, tickLabel, offset, niceStep, ticks, hexDump,
    text, imageType, decodePnm, expandCells, binsFromCells,
  };
}());
