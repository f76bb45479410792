#!/usr/bin/python3
"""Takes the picture of the page that the README shows: a phone that is lit, and a command that fails.

usage: screenshot.py HANDSET FILE.png [light|dark] [WIDTHxHEIGHT]
"""
import sys
import time

from pages import Browser, Handset, eventually

LINES = [("AT+EDFT=9,1", "pass"), ("AT+EDFT=0,5", "pass"), ("AT+EADC=1", "pass"), (".hub silent", "ok"),
         ("AT+GSENSOR", "fail")]


def main(program, file, theme="light", size="1240x780"):
    handset = Handset(program)
    page = Browser(*map(int, size.split("x")))
    try:
        page.theme(theme)
        page.open(handset.url)
        for line, result in LINES:
            page.ask(line, result)
        eventually(lambda: page.run("return document.getElementById('panel').complete"))
        page("title").click()
        time.sleep(1)  # the picture of the panel is drawn
        page.driver.save_screenshot(file)
    finally:
        page.quit()
        handset.end()


main(*sys.argv[1:])
