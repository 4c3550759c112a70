// Appended to a page by page.sh, which reads the outcome.
{
  const faults = [];
  let count = 0;

  const expect = (what, actual, expected) => {
    ++count;
    const [left, right] = [actual, expected].map((value) => JSON.stringify(value));
    if (left !== right) faults.push(`${what}: ${left}, not ${right}`);
  };

  const all = (selector) => [...document.querySelectorAll(selector)];
  const texts = (selector) => all(selector).map((element) => element.textContent);
  const text = (selector) => document.querySelector(selector).textContent;
  const click = (selector) => document.querySelector(selector).click();
  const press = (key, element = document.activeElement) =>
    element.dispatchEvent(new KeyboardEvent("keydown", { key, bubbles: true, cancelable: true }));
  const type = (selector, value) => {
    document.querySelector(selector).value = value;
    document.querySelector(selector).dispatchEvent(new Event("input", { bubbles: true }));
  };
  const choose = (process) => {
    document.querySelector("#process").value = process;
    document.querySelector("#process").dispatchEvent(new Event("change"));
  };
  const go = (hash) => {
    history.replaceState(null, "", hash);
    dispatchEvent(new HashChangeEvent("hashchange"));
  };
  const point = (share) => { // at the plot of the sites
    const { left, width, top } = document.querySelector("#lines").getBoundingClientRect();
    const clientX = left + margin.left + share * (width - margin.left - margin.right);
    document.querySelector("#lines").dispatchEvent(new PointerEvent("pointermove", { clientX, clientY: top + 20 }));
    return text("#tip");
  };
  const column = (id) => texts(`tbody td.${id}`);
  const button = (name, value) => `[data-choice=${name}] button[value=${value}]`;
  const boxes = () => texts("#boxes button");

  const tests = {
    few() {
      expect("totals", texts("#totals dd"), ["708", "3", "308", "3", "3", "2"]);
      expect("processes", texts("#process option").map((each) => each.split(":")[0]), ["All 2 together", "server.1", "child.2"]);
      expect("faults", texts("#faults summary.title"), ["k42mc detected DF: alloc(STD): a second release in child.2"]);
      expect("open", all("#faults details")[0].open, true);
      expect("notes", texts("#notes .title"), ["<b>a note</b> in server.1"]);

      // Growth is that of each process; one that has ended counts on.
      expect("bytes", column("bytes"), ["700", "8", "0"]);
      expect("growth", column("growth"), ["-400", "0", "-50"]);
      expect("most", column("most"), ["1,300", "8", "50"]);
      expect("at the start", point(0).startsWith("10:00:00All: 150 B100 B"), true);
      expect("in the midst", point(0.5).startsWith("10:01:00All: 1.23 KiB1.17 KiB"), true);
      expect("at the end", point(1).startsWith("10:02:00All: 708 B700 B"), true);
      choose(1);
      expect("address", location.hash, "#process=1");
      expect("growth of one", column("growth"), ["-600", "0"]);
      expect("cycle of one", point(1).startsWith("10:01:30, cycle 2All: 408 B400 B"), true);
      choose(-1);

      // Order, filter, and one site.
      click("th.growth button");
      expect("sorted", column("growth"), ["0", "-50", "-400"]);
      click("th.growth button");
      expect("the other way", column("growth"), ["-400", "-50", "0"]);
      expect("as read out", document.querySelector("th.growth").getAttribute("aria-sort"), "ascending");
      type("#filter", "/Q+0x4");
      expect("filtered", text("#sites output"), "2 of 3 sites: 8 bytes in 1 block");
      type("#filter", "");
      click("td.bytes");
      expect("marked", texts("tr.detail mark"), ["    4  int four;\n"]);
      expect("around", text("tr.detail pre").split("\n").length, 8);
      expect("folded", texts("tr.detail .trace > li")[2], "/no/p+0x2 × 3");
      expect("expanded", texts('[aria-expanded="true"]'), ["app.c:4 (STD)"]);
      press("ArrowDown", document.querySelector("tr.row button"));
      expect("next row", document.activeElement.closest("tr").rowIndex > 1, true);

      // The graph.
      go("#");
      expect("boxes", boxes(), ["all", "/no/p+0x3", "/no/p+0x2 × 3", "/no/p+0x1", `${folder}/app.c:4`, "/no/q+0x4", `${folder}/app.c:9`]);
      all("#boxes button")[5].focus();
      document.activeElement.click();
      expect("below", text("#sites output"), "2 of 3 sites below /no/q+0x4: 8 bytes in 1 block");
      press("ArrowDown");
      expect("down", document.activeElement.textContent, `${folder}/app.c:9`);
      press("Escape");
      press("Escape");
      expect("back", location.hash, "");
      click(button("graph", "allocation"));
      expect("inverted", boxes().slice(0, 3), ["all", `${folder}/app.c:4`, "/no/p+0x1"]);
      click(button("colour", "module"));
      expect("modules", texts("#graph .modules span").sort(), ["app.c", "others", "p", "q"]);
      type("#find", "q+0x4");
      expect("found", text("#graph output"), "8 B below what matches, 1.1 %");

      // A link.
      go("#view=lost&process=0&sort=site&graph=allocation&find=x");
      expect("lost", [column("bytes"), text("#find"), document.querySelector("#process").value], [["300"], "", "0"]);
      expect("pressed", all('[aria-pressed="true"]').map((each) => each.value).filter(Boolean), ["lost", "allocation", "icicle", "function"]);
      go("#view=nothing&process=99&site=77&focus=5.6&sort=none&graph=1&layout=2");
      expect("a bad link", column("bytes"), ["700", "8", "0"]);
    },

    busy() {
      click("th.temporary button");
      expect("since the start", [column("allocated"), column("calls"), column("temporary"), column("bytes")],
        [["70,000", "50"], ["7,000", "5"], ["6,999", "2"], ["0", "10"]]);
      expect("cut", boxes(), ["all", "…", "/no/p+0x2", "/no/p+0x1"]);
      all("td.bytes")[1].click();
      expect("cut in the list", texts("tr.detail .trace > li").at(-1), "…");
    },

    many() {
      const rows = () => all("tr.row").length;
      const listed = Number(document.querySelector("table").getAttribute("aria-rowcount")) - 1;
      const bytes = (shown) => Number(/([\d,]+) bytes in/.exec(shown)[1].replaceAll(",", ""));
      expect("left out", text("#left-out").startsWith(`and ${number(40000 - listed)} sites of ${number(40000 - listed)} bytes or fewer`), true);
      expect("sum", bytes(text("#sites output")) + bytes(text("#left-out")), 800020000);
      expect("thousands are listed", listed > 2000, true);
      expect("few are there", rows() > 20 && rows() < 100, true);
      const scroller = document.querySelector("#sites .scroll");
      scroller.scrollTop = scroller.scrollHeight;
      scroller.dispatchEvent(new Event("scroll"));
      expect("the last", all("tr.row").at(-1).getAttribute("aria-rowindex"), String(listed + 1));
      expect("few are there still", rows() > 20 && rows() < 100, true);
      dispatchEvent(new Event("beforeprint"));
      expect("on paper", rows(), 200);
    },
  };

  try {
    tests[test]();
  } catch (error) {
    faults.push(error.stack);
  }
  document.body.append(Object.assign(document.createElement("pre"), {
    id: "outcome", textContent: faults.length ? faults.join("\n") : `all ${count} hold`,
  }));
}
