// Comfort for browsers that run scripts; every page can be read without. Nothing is loaded from elsewhere, and text
// from the wiki enters the page as text only.
"use strict";
(() => {
  const body = document.body;
  const root = body.dataset.root || "";
  const isLive = body.dataset.mode === "live";
  const make = (tag, name, text) => {
    const made = document.createElement(tag);
    if (name) made.className = name;
    if (text !== undefined) made.textContent = text;
    return made;
  };
  const isFramed = window.self !== window.top;
  if (isFramed) document.documentElement.classList.add("framed");

  // ---- Code in colour, and diagrams of an author's.
  const LARGEST = 300000; // characters; a longer text would hold the page up
  const colour = (part) => {
    if (!window.hljs) return;
    for (const code of part.querySelectorAll("code[class^=language-]")) {
      const language = code.className.slice("language-".length);
      if (!hljs.getLanguage(language) || code.textContent.length > LARGEST) continue;
      code.innerHTML = hljs.highlight(code.textContent, { language, ignoreIllegals: true }).value;
    }
  };
  const draw = async (part) => {
    if (!window.mermaid) return;
    const isDark = matchMedia("(prefers-color-scheme: dark)").matches;
    mermaid.initialize({ startOnLoad: false, securityLevel: "strict", theme: isDark ? "dark" : "default", htmlLabels: false, flowchart: { htmlLabels: false } });
    let number = 0;
    for (const text of part.querySelectorAll("pre.mermaid-text")) {
      try {
        const { svg } = await mermaid.render("mermaid-" + ++number, text.textContent);
        const drawn = make("figure", "mermaid-drawn");
        drawn.innerHTML = svg;
        text.replaceWith(drawn);
      } catch {
        // What cannot be drawn stays as its text.
        document.getElementById("dmermaid-" + number)?.remove();
      }
    }
  };

  // ---- Lines that the address names and that are no range of their own on the page.
  const markLines = () => {
    const lines = /^#L(\d+)-L(\d+)$/.exec(location.hash);
    for (const old of document.querySelectorAll(".is-marked")) old.classList.remove("is-marked");
    if (!lines || document.getElementById(location.hash.slice(1))) return;
    const first = document.getElementById("L" + lines[1]);
    if (!first) return;
    for (let line = +lines[1]; line <= Math.min(+lines[2], +lines[1] + 2000); ++line)
      document.getElementById("L" + line)?.classList.add("is-marked");
    first.scrollIntoView();
  };
  addEventListener("hashchange", markLines);

  // ---- A cited source beside the text, where there is room.
  const wide = matchMedia("(min-width: 80.01rem)");
  const side = document.querySelector(".side");
  let opener = null;
  const closePanel = () => {
    document.querySelector(".panel")?.remove();
    body.classList.remove("has-panel");
    for (const cite of document.querySelectorAll(".cite.is-open")) cite.classList.remove("is-open");
    opener?.focus();
    opener = null;
  };
  const openPanel = (cite) => {
    closePanel();
    opener = cite;
    cite.classList.add("is-open");
    const panel = make("section", "panel");
    panel.setAttribute("aria-label", "Cited source");
    const head = make("div", "panel-head");
    const link = make("a", "", decodeURIComponent(new URL(cite.href).pathname.split("/source/")[1]).replace(/\.html$/, "") + cite.hash.replace("#", ":"));
    link.href = cite.href;
    const close = make("button", "", "Close");
    close.type = "button";
    close.addEventListener("click", closePanel);
    head.append(link, close);
    const frame = make("iframe");
    frame.title = "Source of " + cite.textContent;
    frame.src = cite.href;
    panel.append(head, frame);
    side.append(panel);
    body.classList.add("has-panel");
    cite.scrollIntoView({ block: "nearest" });
    close.focus({ preventScroll: true });
  };
  document.addEventListener("click", (event) => {
    const cite = event.target.closest?.("a.cite, .change-body a");
    const isPlain = event.button === 0 && !event.ctrlKey && !event.metaKey && !event.shiftKey && !event.altKey;
    if (!cite || !isPlain || !wide.matches || !body.classList.contains("kind-page")) return;
    if (!new URL(cite.href).pathname.includes("/source/") || new URL(cite.href).origin !== location.origin) return;
    event.preventDefault();
    openPanel(cite);
  });

  // ---- Search as one types.
  const field = document.getElementById("q");
  const hits = document.getElementById("hits");
  let asked = 0;
  const hide = () => { hits.hidden = true; hits.replaceChildren(); };
  const show = (target, found, message) => {
    target.replaceChildren();
    for (const hit of found) {
      const link = make("a");
      link.href = root + hit.url;
      link.append(make("b", "", hit.title), make("span", "where", hit.section ? "  " + hit.section : ""), make("small", "", hit.excerpt));
      target.append(link);
    }
    if (message) target.append(make("p", "", message));
    target.hidden = false;
  };

  // In an export the index is a script of its own, loaded when it is first needed: files cannot be fetched from a disk.
  let index = null;
  const loadIndex = () => index ??= new Promise((done, failed) => {
    const script = make("script");
    script.src = root + "search-index.js";
    script.onload = () => done(window.ossilarIndex);
    script.onerror = failed;
    document.head.append(script);
  });
  const wordsOf = (text) => text.normalize("NFKD").replace(/([\p{Ll}\d])(\p{Lu})/gu, "$1 $2").toLowerCase().match(/[\p{L}\p{N}]+/gu) || [];
  // Words that begin as a word of the query does; in titles they count most, and rare words more than common ones.
  const searchIndex = async (query, most) => {
    const wanted = [...new Set(wordsOf(query))].slice(0, 16);
    const passages = await loadIndex();
    const scores = passages.map(() => 0);
    for (const word of wanted) {
      const found = [];
      passages.forEach((passage, at) => {
        passage.words ??= [wordsOf(passage[1]), wordsOf(passage[2]), wordsOf(passage[3])];
        const counts = passage.words.map((words) => words.filter((each) => each.startsWith(word)).length);
        const score = 6 * Math.min(counts[0], 1) + 3 * Math.min(counts[1], 1) + counts[2] / (1 + counts[2]);
        if (score > 0) found.push([at, score]);
      });
      const rarity = Math.log(1 + passages.length / (1 + found.length));
      for (const [at, score] of found) scores[at] += score * rarity;
    }
    const order = scores.map((score, at) => [score, at]).filter(([score]) => score > 0).sort((a, b) => b[0] - a[0] || a[1] - b[1]);
    return order.slice(0, most).map(([, at]) => {
      const [url, title, section, text] = passages[at];
      const place = Math.max(0, text.toLowerCase().indexOf(wanted.find((word) => text.toLowerCase().includes(word)) ?? "") - 60);
      return { url, title, section, excerpt: (place ? "… " : "") + text.slice(place, place + 240) };
    });
  };
  const search = async (query, most) => {
    if (!isLive) return searchIndex(query, most);
    const answer = await (await fetch(root + "search.json?q=" + encodeURIComponent(query))).json();
    return answer.hits || [];
  };
  const type = async () => {
    const turn = ++asked;
    const query = field.value.trim();
    if (!query) return hide();
    await new Promise((done) => setTimeout(done, 120));
    if (turn !== asked) return;
    try {
      const found = await search(query, 8);
      if (turn === asked) show(hits, found, found.length ? "" : "Nothing was found.");
    } catch {
      if (turn === asked) show(hits, [], "The search does not answer.");
    }
  };
  field.addEventListener("input", type);
  field.form.addEventListener("keydown", (event) => {
    const links = [...hits.querySelectorAll("a")];
    const at = links.indexOf(document.activeElement);
    if (event.key === "ArrowDown" && links.length) { event.preventDefault(); links[Math.min(at + 1, links.length - 1)].focus(); }
    if (event.key === "ArrowUp" && links.length) { event.preventDefault(); (at > 0 ? links[at - 1] : field).focus(); }
    if (event.key === "Escape") { hide(); field.focus(); event.stopPropagation(); }
  });
  document.addEventListener("click", (event) => { if (!field.form.contains(event.target)) hide(); });
  document.addEventListener("keydown", (event) => {
    const isTyping = /^(INPUT|TEXTAREA|SELECT)$/.test(document.activeElement?.tagName);
    if (event.key === "/" && !isTyping && !event.ctrlKey && !event.metaKey) { event.preventDefault(); field.focus(); field.select(); }
    if (event.key === "Escape" && opener) closePanel();
  });
  const searchPage = async () => {
    const results = document.getElementById("results");
    const query = new URLSearchParams(location.search).get("q");
    if (isLive || !results || !query) return;
    field.value = query;
    document.getElementById("query").value = query;
    results.className = "hits-page";
    const found = await search(query, 20);
    show(results, found, found.length ? "" : "Nothing was found.");
  };

  // ---- Where the reader is, in the table of contents.
  let watcher = null;
  const followReading = () => {
    watcher?.disconnect();
    const links = new Map([...document.querySelectorAll(".contents a")].map((link) => [decodeURIComponent(link.hash.slice(1)), link]));
    watcher = new IntersectionObserver((entries) => {
      for (const entry of entries) {
        if (!entry.isIntersecting) continue;
        for (const link of links.values()) link.classList.remove("is-here");
        links.get(entry.target.id)?.classList.add("is-here");
      }
    }, { rootMargin: "-70px 0px -70% 0px" });
    for (const id of links.keys()) { const heading = document.getElementById(id); if (heading) watcher.observe(heading); }
  };

  // ---- The page as it is now, when the wiki changed. What is open stays open.
  const finish = () => { colour(document); draw(document); followReading(); };
  const refresh = async () => {
    const answer = await fetch(location.href.split("#")[0], { cache: "no-cache" });
    if (!answer.ok) return;
    const fresh = new DOMParser().parseFromString(await answer.text(), "text/html");
    const open = [...document.querySelectorAll("main details")].map((each) => each.open);
    for (const part of ["main", ".pages", ".contents", ".foot"]) {
      const old = document.querySelector(part);
      const now = fresh.querySelector(part);
      if (old && now) old.replaceChildren(...now.childNodes);
      else if (now && part === ".contents") side.prepend(now);
      else old?.remove();
    }
    document.title = fresh.title;
    [...document.querySelectorAll("main details")].forEach((each, at) => { if (open[at]) each.open = true; });
    finish();
  };
  const listen = () => {
    const events = new EventSource(root + "events");
    let waiting = 0;
    events.addEventListener("changed", () => { clearTimeout(waiting); waiting = setTimeout(refresh, 60); });
    addEventListener("pagehide", () => events.close());
  };

  finish();
  markLines();
  searchPage();
  if (isLive && !isFramed) listen();
})();
