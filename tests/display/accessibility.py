#!/usr/bin/env python3
"""What a screen reader hears over AT-SPI from the host with the pane: every control gives its
name and its present value. Runs under with-display.sh and dbus-run-session."""
import json, os, plistlib, shutil, sqlite3, subprocess, sys, tempfile, time
import pyatspi

PANE, HOST = os.environ['VANTOR_PANE_BUNDLE'], os.environ['VANTOR_HOST']
home = tempfile.mkdtemp()
product, docs = home + '/.local/share/Vantor', home + '/Documents'
os.makedirs(product)
os.makedirs(docs)
# Off, so the helper leaves the records alone; the check boxes differ so each is told apart.
with open(product + '/defaults.plist', 'wb') as f:
    plistlib.dump({'firstRun': False, 'folderAliases': [], 'active': False, 'runAtLogin': False,
                   'checkUpdates': True, 'visible': False}, f)
with open(PANE + '/Contents/Resources/History.vtmodel') as f, sqlite3.connect(product + '/history.db') as db:
    for statement in json.load(f)['schema']:
        db.execute(statement)
    db.executemany('INSERT INTO ZHISTORY (ZFOLDER, ZSTATUS, ZSAVINGS, ZENABLED) VALUES (?, ?, ?, ?)',
                   [(docs, 100, 15_700_000, 1), (home + '/Gone', 40, 2_000, 0)])
with open(PANE + '/Contents/Info.plist', 'rb') as f:
    version = plistlib.load(f)['CFBundleVersion']

env = {k: v for k, v in os.environ.items() if not k.startswith('XDG_')}
env.update(HOME=home, QT_QPA_PLATFORM='xcb', QT_LINUX_ACCESSIBILITY_ALWAYS_ON='1')
host = subprocess.Popen([HOST, '--pane', PANE], env=env)
failures = []


def find(root, role, name=None):
    return pyatspi.findDescendant(root, lambda a: a.getRole() == role and (name is None or a.name == name))


def waitFor(what, function, timeout=30):
    end = time.time() + timeout
    while time.time() < end:
        try:
            found = function()
            if found:
                return found
        except Exception:  # the tree is still being built
            pass
        time.sleep(0.2)
    sys.exit(f'accessibility: {what} did not appear within {timeout} s')


def checked(accessible):
    return accessible.getState().contains(pyatspi.STATE_CHECKED)


try:
    desktop = pyatspi.Registry.getDesktop(0)
    app = waitFor('the host', lambda: next(a for a in desktop if a and a.name == 'vantor-preferences'))
    switch = waitFor('the switch', lambda: find(app, pyatspi.ROLE_CHECK_BOX, 'Compression'))
    for label in ['Total saved: 15.7 MB', 'Version ' + version]:
        waitFor(label, lambda: find(app, pyatspi.ROLE_LABEL, label))
    cells = find(app, pyatspi.ROLE_TABLE, 'Compressed folders').queryTable()
    rows = [[cells.getAccessibleAt(r, c).name for c in range(cells.nColumns)] for r in range(cells.nRows)]
    expected = [['Documents', docs, '100%', '15.7 MB'], ['Other', 'Previous savings', '100%', '2.00 KB']]
    if rows != expected:
        failures.append(f'table: {rows!r}, expected {expected!r}')
    for name, value in [('Compression', False), ('Start Vantor Helper when I log in', False),
                        ('Show Vantor Helper while it runs', False), ('Check for updates automatically', True)]:
        box = find(app, pyatspi.ROLE_CHECK_BOX, name)
        if not box or checked(box) != value:
            failures.append(f'{name}: {box and checked(box)!r}, expected {value!r}')
    # The value follows the control: switched on, the switch reads as on.
    switch.queryAction().doAction(0)
    waitFor('the switch turned on', lambda: checked(switch))
finally:
    subprocess.run(['gdbus', 'emit', '--session', '--object-path', '/com/quillfen/vantor', '--signal',
                    'com.quillfen.vantor.DistributedNotification.Post', 'vantorHelperShouldQuit', '@a{sv} {}'],
                   capture_output=True)
    host.terminate()
    host.wait(30)
    shutil.rmtree(home, ignore_errors=True)
print('\n'.join(failures) or 'accessibility: every control reads its name and its value')
sys.exit(1 if failures else 0)
