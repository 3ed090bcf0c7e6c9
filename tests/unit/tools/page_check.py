#!/usr/bin/env python3
"""Checks a page of vexo info: it is well-formed, stands alone, and can be read without seeing its pictures.

    page_check.py PAGE [TEXT...]

Each TEXT has to be on the page, letter for letter, as text. The last line says how many pictures and tooltips there are.
"""
import re
import sys
import xml.etree.ElementTree

ALLOWED = {
    "html", "head", "meta", "title", "style", "body", "header", "main", "footer", "h1", "h2", "h3", "p", "span", "small",
    "div", "dl", "dt", "dd", "ul", "li", "figure", "figcaption", "table", "thead", "tbody", "tr", "th", "td", "svg", "line",
    "path", "rect"}
ATTRIBUTES = {
    "lang", "charset", "http-equiv", "content", "name", "class", "style", "scope", "role", "aria-label", "aria-hidden",
    "tabindex", "viewBox", "preserveAspectRatio", "d", "x", "y", "x1", "x2", "y1", "y2", "width", "height"}


def main():
    page, *texts = sys.argv[1:]
    with open(page, encoding="utf-8") as file:
        source = file.read()
    assert source.startswith("<!DOCTYPE html>"), "no doctype"
    root = xml.etree.ElementTree.fromstring(source)
    pictures = tooltips = 0
    for element in root.iter():
        assert element.tag in ALLOWED, f"element {element.tag}"
        for name, value in element.attrib.items():
            assert name in ATTRIBUTES, f"attribute {name}"
            if name == "style":
                assert re.fullmatch(r"(left|bottom):[0-9.e+-]+%", value), f"style {value}"
        if element.tag == "svg":
            assert element.get("aria-hidden") == "true" or (
                element.get("role") == "img" and element.get("aria-label")), "a picture without words"
            pictures += 1
        if element.tag == "path":
            assert re.fullmatch(r"[MVHZ0-9 .e+-]+", element.get("d")), "no path"
        if element.tag == "title" and element.text and element is not root.find("head/title"):
            tooltips += 1
    style = root.find("head/style").text
    assert "url(" not in style and "@import" not in style and "://" not in source, "something outside is named"
    policy = root.find("head/meta[@http-equiv]")
    assert policy.get("content") == "default-src 'none'; style-src 'unsafe-inline'", "no policy"
    assert "prefers-color-scheme: dark" in style and "max-width: 40rem" in style, "one look for all"
    shown = [text for element in root.iter() if element.tag != "style" for text in (element.text, element.tail) if text]
    for text in texts:
        assert any(text in one for one in shown), f"not on the page: {text}"
    print(f"{pictures} pictures, {tooltips} tooltips")


if __name__ == "__main__":
    main()
