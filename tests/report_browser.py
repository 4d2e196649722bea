#!/usr/bin/python3
"""report_browser.py DEVACCESS CHASSIS_SIM: the page of 'devaccess report' in a real browser. Status 77: there is none."""
import json
import os
import subprocess
import sys
import tempfile

try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select

    if not os.path.exists("/usr/bin/chromedriver"):
        raise ImportError
except ImportError:
    print("report_browser.py: Skipped\npython3-selenium or chromium-driver is not installed")
    sys.exit(77)

devaccess, chassis_sim = sys.argv[1:]
EVIL = ["<script>document.title='stolen'</script>", "FAIL <img src=//x.invalid/ onerror=alert(1)>"]
work = tempfile.TemporaryDirectory()
os.chdir(work.name)
for name, messages in {"a": EVIL, "b": []}.items():
    add = "".join(f'{devaccess} podlog add SW1 "{message}"; ' for message in messages)
    subprocess.run([chassis_sim, "--", "sh", "-c", f"{add}{devaccess} collect --anonymous {os.getcwd()}/{name}.tar"],
                   env={**os.environ, "DEVACCESS_CHASSIS": "n20"}, check=True, stdout=subprocess.DEVNULL)
subprocess.run([devaccess, "report", "a.tar", "b.tar", "--out", "page.html"], check=True)

options = webdriver.ChromeOptions()
for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", f"--user-data-dir={work.name}/profile"):
    options.add_argument(argument)
options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
browser = webdriver.Chrome(options=options)
browser.get("file://" + os.path.abspath("page.html"))


def shown():
    return [row for row in browser.find_elements(By.CSS_SELECTOR, "#entries tbody tr") if row.is_displayed()]


def expect(what, wanted, found):
    if wanted != found:
        sys.exit(f"{what}: {found}, expected {wanted}")


everything = len(shown())
expect("title", "a, b", browser.title)
expect("findings", 4, len(browser.find_elements(By.CSS_SELECTOR, "tr.finding")))
expect("pictures", 2, len(browser.find_elements(By.CSS_SELECTOR, "svg[role=img] title")))
text = browser.find_element(By.ID, "filter-text")
text.send_keys("<")
expect("entries with the text", EVIL, [row.find_element(By.CLASS_NAME, "message").text for row in shown()])
expect("elements out of the text", 0, len(browser.find_elements(By.CSS_SELECTOR, "img")))
text.clear()
text.send_keys(" ")
Select(browser.find_element(By.ID, "filter-host")).select_by_visible_text("b")
expect("entries of one host", everything // 2 - 1, len(shown()))
Select(browser.find_element(By.ID, "filter-log")).select_by_visible_text("pod ALSW2")
browser.find_element(By.ID, "filter-bad").click()
expect("failures of a card", 2, len(shown()))
expect("what is told", f"2 of {everything} entries", browser.find_element(By.ID, "shown").text)
expect("console", [], browser.get_log("browser"))
messages = [json.loads(entry["message"])["message"] for entry in browser.get_log("performance")]
sent = [message["params"]["request"]["url"] for message in messages if message["method"] == "Network.requestWillBeSent"]
expect("requests", [], [url for url in sent if not url.startswith(("file:", "data:", "chrome:"))])
for width in (360, 1280):  # a telephone's, and wide
    browser.set_window_size(width, 900)
    expect(f"columns too many at {width}", 0, browser.execute_script(
        "return Math.max(0, document.documentElement.scrollWidth - document.documentElement.clientWidth)"))
browser.quit()
