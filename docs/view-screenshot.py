"""Makes docs/view.png: the page of `korvane-log view` on the demo's recording, in headless
Chromium, the pointer on the first bookmark.

/usr/bin/python3 docs/view-screenshot.py build-release/tools/korvane-log/korvane-log docs/view.png
"""

import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

tool, output = sys.argv[1], sys.argv[2]
with tempfile.TemporaryDirectory() as folder:
    subprocess.run([tool, "demo", f"{folder}/demo"], check=True, capture_output=True)
    server = subprocess.Popen([tool, "view", f"{folder}/demo/drive.kvlog", "--no-open"],
                              stdout=subprocess.PIPE)
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                     "--disable-background-networking", "--disable-component-update",
                     "--disable-sync", "--window-size=1280,860", "--hide-scrollbars",
                     f"--user-data-dir={folder}/browser"):
        options.add_argument(argument)
    options.binary_location = shutil.which("chromium")
    page = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    try:
        page.get(server.stdout.readline().decode().strip())
        WebDriverWait(page, 20).until(lambda b: b.execute_script(
            "const d = document.body.dataset;"
            "return d.state === 'ready' && d.drawnVersion === d.version"))
        lanes = page.find_element(By.ID, "lanes")
        first = page.execute_script("return KV.timeline.bookmarks[0].time")
        x = page.execute_script("return KV.timeline.xOf(arguments[0])", first)
        ActionChains(page).move_to_element_with_offset(
            lanes, int(x - lanes.size["width"] / 2), 50 - lanes.size["height"] // 2).perform()
        page.save_screenshot(str(Path(output)))
    finally:
        page.quit()
        server.send_signal(signal.SIGINT)
        server.wait()
