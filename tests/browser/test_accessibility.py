"""What a screen reader and weak eyes need: roles, names, order, contrast (WCAG 2.2, levels A and AA)."""

import pytest
from conftest import Keys

# What is wrong with the document, element by element.
RULES = """
    const wrong = [];
    const seen = (one) => one.checkVisibility({ visibilityProperty: true });
    const hidden = (one) => one.closest('[aria-hidden=true]');
    const name = (one) => (one.getAttribute('aria-label') ?? (one.getAttribute('aria-labelledby') ?? '').split(' ').filter(Boolean)
      .map((id) => document.getElementById(id)?.textContent ?? '').join(' ')) || [...(one.labels ?? [])].map((label) => label.textContent).join(' ')
      || one.textContent;
    const say = (what, one) => wrong.push(`${what}: ${one.outerHTML.slice(0, 120)}`);
    const all = (selector) => [...document.querySelectorAll(selector)].filter((one) => seen(one) && !hidden(one));
    all('button, a, input, [role=tab], [role=option], [role=listbox], [role=tablist], [role=tabpanel], [role=img], [role=group], section, table')
      .forEach((one) => name(one).trim() || say('no name', one));
    all('img').forEach((one) => one.hasAttribute('alt') || say('no alternative', one));
    all('canvas').forEach((one) => one.getAttribute('role') === 'img' || say('a canvas without a role', one));
    all('[role=option]').forEach((one) => {
      one.closest('[role=listbox]') || say('an option outside a list', one);
      ['aria-selected', 'aria-posinset', 'aria-setsize'].forEach((a) => one.hasAttribute(a) || say(`no ${a}`, one));
    });
    all('[role=tab]').forEach((one) => {
      one.closest('[role=tablist]') || say('a tab outside a list', one);
      document.getElementById(one.getAttribute('aria-controls'))?.getAttribute('role') === 'tabpanel' || say('a tab without a panel', one);
    });
    all('[role=tablist]').forEach((one) => one.querySelectorAll('[tabindex="0"]').length === 1 || say('not one way in', one));
    all('[role=listbox] *').forEach((one) => one.matches('button, a, input, [tabindex]') && say('a control in an option', one));
    all('[aria-activedescendant]').forEach((one) => document.getElementById(one.getAttribute('aria-activedescendant')) || say('points nowhere', one));
    all('th').forEach((one) => one.hasAttribute('scope') || say('a heading of nothing', one));
    all('*').filter((one) => one.scrollHeight > one.clientHeight + 1 && one.clientHeight > 30 && /auto|scroll/.test(getComputedStyle(one).overflowY))
      .forEach((one) => one.tabIndex >= 0 || one.querySelector('button, a, [tabindex]') || say('scrolls, but not by the keyboard', one));
    document.querySelectorAll('[aria-hidden=true]').forEach((one) => one.querySelector('button, a, input') && say('a hidden control', one));
    const ids = [...document.querySelectorAll('[id]')].map((one) => one.id);
    ids.filter((id, i) => ids.indexOf(id) !== i).forEach((id) => wrong.push(`two elements named ${id}`));
    const levels = all('h1, h2, h3').map((one) => Number(one.tagName[1]));
    levels.forEach((level, i) => level - (levels[i - 1] ?? 0) > 1 && wrong.push(`a heading of level ${level} after ${levels[i - 1] ?? 'none'}`));
    document.documentElement.lang || wrong.push('no language');
    all('button, a, input, [role=option]').forEach((one) => {  // 2.5.8: 24 pixels, but for links in a sentence
      const { width, height } = one.getBoundingClientRect();
      Math.min(width, height) >= 24 || say(`a target of ${width} by ${height}`, one);
    });
    return wrong;"""

# Texts whose contrast with the nearest painted ground is too low (1.4.3), and parts of controls (1.4.11).
CONTRAST = """
    const colour = (text) => { const [r, g, b, a = 1] = text.match(/[\\d.]+/g).map(Number); return { r, g, b, a }; };
    const light = ({ r, g, b }) => [r, g, b].map((v) => v / 255).map((v) => v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4)
      .reduce((sum, v, i) => sum + v * [0.2126, 0.7152, 0.0722][i], 0);
    const ratio = (one, other) => { const [x, y] = [light(one), light(other)].sort((a, b) => b - a); return (x + 0.05) / (y + 0.05); };
    const over = (top, ground) => ({ r: top.r * top.a + ground.r * (1 - top.a), g: top.g * top.a + ground.g * (1 - top.a), b: top.b * top.a + ground.b * (1 - top.a), a: 1 });
    const ground = (one) => {
      if (!one) { return { r: 255, g: 255, b: 255, a: 1 }; }
      const own = colour(getComputedStyle(one).backgroundColor);
      return own.a === 1 ? own : over(own, ground(one.parentElement));
    };
    const wrong = [];
    let count = 0;
    const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
    while (walker.nextNode()) {
      const one = walker.currentNode.parentElement;
      if (!walker.currentNode.data.trim() || !one.checkVisibility({ visibilityProperty: true, opacityProperty: true })) { continue; }
      const got = ratio(over(colour(getComputedStyle(one).color), ground(one)), ground(one));
      count += 1;
      if (got < 4.5) { wrong.push(`${got.toFixed(2)}: ${one.className} ${walker.currentNode.data.slice(0, 40)}`); }
    }
    document.querySelectorAll('.dot, .search input').forEach((one) => {
      const style = getComputedStyle(one);
      const got = ratio(colour(one.matches('input') ? style.borderTopColor : style.backgroundColor), ground(one.parentElement));
      if (one.checkVisibility() && got < 3) { wrong.push(`${got.toFixed(2)}: ${one.className}`); }
    });
    return [count, [...new Set(wrong)]];"""


def fill(view):
    view.exchange(b"POST /a?b=c HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 40\r\n\r\n"
                  b'{"text":"x","number":1,"none":null,"a":[]}'[:125])
    view.exchange(b"hello\r\n\r\n", b"HTTP/1.1 400 Bad Request\r\n\r\n")
    view.exchange(b"POST /short HTTP/1.1\r\nContent-Length: 400\r\n\r\n<a>\x01\xff</a>", b"", "reset")
    view.open()


def states(page, view):
    """The page in each of its states, one after the other."""
    yield "empty"
    fill(view)
    for connection in (1, 2, 3, 4):
        page.choose(connection)
        for tab in [tab.get_attribute("id") for tab in page.all("[role=tab]")]:
            page.click(f"#{tab}")
            page.driver.find_element("id", "rows").send_keys(Keys.NULL)
            yield f"connection {connection}, {tab}"
    page.click("#pause")
    yield "paused"


@pytest.mark.parametrize("width", [360, 1280])
def test_everything_has_a_role_and_a_name(page, view, width):
    page.size(width, 800)
    for state in states(page, view) if width > 500 else ["empty"]:
        assert page.run(RULES) == [], state


@pytest.mark.parametrize("theme", ["light", "dark"])
def test_text_stands_out_from_its_ground(page, view, theme):
    page.theme(theme)
    for state in states(page, view):
        count, wrong = page.run(CONTRAST)
        assert count > 10
        assert wrong == [], state
