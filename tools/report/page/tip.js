// The one tooltip, beside the pointer or the element that has the focus.

const tip = at("#tip");

function showTip(x, y, content) {
  tip.replaceChildren(...content);
  tip.hidden = false;
  const { width, height } = tip.getBoundingClientRect();
  tip.style.left = `${Math.max(4, Math.min(x + 14, innerWidth - width - 8))}px`;
  tip.style.top = `${y + 18 + height > innerHeight ? Math.max(4, y - height - 12) : y + 18}px`;
}

function hideTip() { tip.hidden = true; }

addEventListener("scroll", hideTip, { capture: true, passive: true });
