#!/usr/bin/python3
"""The console's page in headless Chromium: the terminal appears, a forged
name shows as text, a package is chosen and checked, the update is confirmed
and followed through every stage to "confirmed" (leaving the page and coming
back on the way), the report downloads, and a package is uploaded and checked.

    browser_update.py URL SCREENSHOT DOWNLOAD_DIR FORGED_NAME

Run by test_console, which plays the terminal's reboot meanwhile. Exit 0 when
every step held; a screenshot of the page is saved either way."""
import json
import os
import sys
import tempfile
import time

from selenium import webdriver
from selenium.common.exceptions import NoAlertPresentException, StaleElementReferenceException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

URL, SHOT, DOWNLOADS, FORGED = sys.argv[1:5]
STAGES = ["stream", "verify", "install", "reboot", "confirmation"]


def browser(profile):
    opts = Options()
    for arg in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                "--no-first-run", "--disable-background-networking",
                "--disable-component-update", "--disable-sync",
                "--window-size=1280,1000", "--user-data-dir=" + profile):
        opts.add_argument(arg)
    opts.binary_location = "/usr/bin/chromium"
    opts.add_experimental_option("prefs", {"download.default_directory": DOWNLOADS,
                                           "download.prompt_for_download": False})
    d = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=opts)
    d.execute_cdp_cmd("Page.setDownloadBehavior",
                      {"behavior": "allow", "downloadPath": DOWNLOADS})
    return d


def text_of(d, selector):
    """The texts of `selector`, read at once: the page redraws as it goes."""
    return d.execute_script(
        "return [...document.querySelectorAll(arguments[0])].map(e => e.textContent)", selector)


def retried(action):
    """Runs `action` again when a redraw replaced an element it had found."""
    for _ in range(50):
        try:
            return action()
        except StaleElementReferenceException:
            time.sleep(0.05)
    raise AssertionError("the page kept redrawing what was being used")


def click(d, element_id):
    retried(lambda: d.find_element(By.ID, element_id).click())


def stage_classes(d):
    return tuple(d.execute_script(
        "return [...document.querySelectorAll('#rollout .stage')].map(e => e.className)"))


def run(d):
    d.get(URL)
    # The page redraws as state arrives: an element found may be replaced
    # before it is read, and is then found again.
    wait = WebDriverWait(d, 20, ignored_exceptions=[StaleElementReferenceException])
    wait.until(lambda d: "ID" in text_of(d, "#terminals td"))
    wait.until(lambda d: FORGED in text_of(d, "#terminals td"))
    assert not d.find_elements(By.CSS_SELECTOR, "#terminals img, #terminals b"), "markup ran"
    try:
        d.switch_to.alert
        raise AssertionError("the forged name opened an alert")
    except NoAlertPresentException:
        pass

    retried(lambda: d.find_element(By.XPATH, "//table[@id='terminals']//tr[td[text()='ID']]")
            .find_element(By.CSS_SELECTOR, "input[type=checkbox]").click())
    wait.until(lambda d: len(Select(d.find_element(By.ID, "package")).options) > 1)
    Select(d.find_element(By.ID, "package")).select_by_value("v2.swu")
    wait.until(lambda d: d.find_element(By.ID, "check-verdict").text.startswith("ok"))
    assert text_of(d, "#check-version") == ["2.0.0"]

    click(d, "update-selected")
    wait.until(lambda d: d.find_element(By.ID, "confirm").is_displayed())
    plan = text_of(d, "#confirm-list td")
    assert plan[:5] == ["ID", "127.0.0.1", "1.2.3", "2.0.0", "update"], plan
    click(d, "confirm-go")

    # The bars as they move: every distinct look of the stages, until the
    # outcome names the confirmation.
    seen = []
    reopened = False
    deadline = time.time() + 120
    while time.time() < deadline:
        looks = stage_classes(d)
        if looks and (not seen or seen[-1] != looks):
            seen.append(looks)
        # Leaving the page mid-rollout stops nothing; back, it shows where
        # the rollout is.
        if looks and not reopened:
            d.get("about:blank")
            d.get(URL)
            reopened = True
        outcome = " ".join(text_of(d, "#rollout .outcome"))
        if "exit" in outcome:
            break
        time.sleep(0.05)
    assert outcome.startswith("confirmed, running 2.0.0 (exit 0)"), (outcome, seen)
    # The outcome and the bars may be read either side of one redraw.
    wait.until(lambda d: all("done" in c for c in stage_classes(d)))
    active = {STAGES[i] for look in seen for i, c in enumerate(look) if "active" in c}
    assert len(active) >= 3, "the bars did not move through the stages: %s" % seen
    print("stages seen active:", sorted(active))

    click(d, "report-link")
    report = os.path.join(DOWNLOADS, "rollout-1.jsonl")
    wait.until(lambda d: os.path.exists(report))
    with open(report) as f:
        line = json.loads(f.readline())
    assert (line["identity"], line["outcome"], line["version_before"], line["version_after"],
            line["confirmation"]) == ("ID", "updated", "1.2.3", "2.0.0", "confirmed"), line
    assert FORGED in text_of(d, "#terminals td")

    # A package from the technician's own disk, uploaded and checked.
    upload = d.find_element(By.ID, "upload")
    d.execute_script("arguments[0].hidden = false", upload)
    upload.send_keys(os.path.join(os.path.dirname(DOWNLOADS), "packages", "v2.swu"))
    wait.until(lambda d: Select(d.find_element(By.ID, "package")).first_selected_option
               .get_attribute("value") == "uploaded/v2.swu")
    wait.until(lambda d: d.find_element(By.ID, "check-verdict").text.startswith("ok"))


def main():
    with tempfile.TemporaryDirectory() as profile:
        d = browser(profile)
        try:
            run(d)
            print("browser: every step held")
            return 0
        except Exception as e:  # the test shows why, beside the screenshot
            print("browser: %s: %s" % (type(e).__name__, e))
            return 1
        finally:
            d.save_screenshot(SHOT)
            d.quit()


if __name__ == "__main__":
    sys.exit(main())
