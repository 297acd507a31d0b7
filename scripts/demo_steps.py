"""What the demo does to the machine and asks of the session, step by step.

Texts in Chinese are for the page, which its reader, the machine's owner, sees afterwards.
"""

from control_client import RequestFailed
from demo_recording import APPLE_SILICON

REPLY_SECONDS = 60.0
TURBO_DISABLED = 1  # in a reply; 0 is the system's own way
# Percent: hot enough to matter, not so hot that the temperature protection takes over.
BUSY_LOAD = 60

# Slower than the machine's own control up to 88 °C, and at full speed where every curve has to be.
CUSTOM_CURVE = {
    "sensor": "CPU",
    "points": [
        {"temperature": 45, "percent": 5},
        {"temperature": 80, "percent": 12},
        {"temperature": 88, "percent": 35},
        {"temperature": 90, "percent": 100},
    ],
}


class Steps:
    """Asks and tells; every step is a method that takes no arguments."""

    def __init__(self, mac, session, recording, tell, now):
        self._mac = mac
        self._session = session  # None when there can be none
        self._recording = recording
        self._tell = tell  # shows one line in the terminal
        self._now = now
        self._backup = None

    def plan(self):
        """(share of the run at which it begins, step), in order."""
        if self._session is None:
            return [(0.1, self.get_busy)]
        if self._recording.state["controller"] == APPLE_SILICON:
            return [(0.1, self.get_busy), (0.22, self.test_fans), (0.4, self.custom),
                    (0.75, self.automatic)]
        return [(0.08, self.get_busy), (0.2, self.performance), (0.38, self.quiet),
                (0.58, self.custom), (0.78, self.automatic), (0.84, self.optimize_power),
                (0.92, self.restore_power), (0.95, self.enable_turbo)]

    # ---- Steps --------------------------------------------------------------------------------

    def get_busy(self):
        self._mac.set(f"load={BUSY_LOAD}")
        self._note(f"处理器负载升至 {BUSY_LOAD} %", f"the machine gets busy: load {BUSY_LOAD} %")

    def performance(self):
        self._switch("profile performance", "性能模式", "profile", profile="performance")

    def quiet(self):
        self._switch("profile quiet, turbo off", "静音模式", "profile", profile="quiet",
                     label="夜间静音")

    def custom(self):
        self._switch("profile custom, a curve of our own", "自定义曲线", "profile", profile="custom",
                     curve=CUSTOM_CURVE)

    def test_fans(self):
        self._switch("test-fans, five seconds at full speed", "风扇测试", "test-fans")

    def automatic(self):
        self._switch("auto", "系统自动", "auto")

    def optimize_power(self):
        plan = {"source": "ac", "scope": "current", "lowPower": True, "displayMinutes": 5,
                "idleMinutes": 5, "disableTurbo": False}
        reply = self._ask("power plan", "电源方案", "power-optimize", powerPlan=plan)
        if reply:
            self._backup = reply["power"]["backup"]
            edits = "，".join(edit_text(edit) for edit in self._backup["edits"])
            self._note("应用电源方案：" + edits, "             " + edits)

    def restore_power(self):
        if self._backup is None:
            return
        reply = self._ask("power plan undone", "恢复电源设置", "power-restore", powerBackup=self._backup)
        if reply:
            self._backup = None
            self._note("电源方案：" + reply["message"])

    def enable_turbo(self):
        if self.status().get("turbo") != TURBO_DISABLED:
            return
        reply = self._ask("turbo on", "恢复睿频", "turbo-enable")
        if reply:
            self._note("睿频已恢复")

    def leave_as_found(self):
        """Undoes what an interrupt kept from being undone."""
        if self._session is not None and self._session.alive:
            self.restore_power()
            self.enable_turbo()

    # ---- Parts of steps -----------------------------------------------------------------------

    def status(self):
        if self._session is None:
            return {}
        reply = self._session.exchange({"command": "status"}, REPLY_SECONDS)
        self._follow(reply)
        return reply

    def _switch(self, what, title, command, **members):
        reply = self._ask(what, title, command, **members)
        if reply:
            self._follow(reply)

    def _follow(self, reply):
        """Notes when the mode has become another one, also when a lease ended by itself."""
        self._recording.statuses.append((self._now(), reply))
        word = reply.get("profile", "automatic")
        title = reply.get("label", "系统自动")
        if self._recording.modes[-1][1:] != (word, title):
            self._recording.modes.append((self._now(), word, title))

    def _ask(self, what, title, command, **members):
        """what: for the terminal; title: for the page."""
        try:
            reply = self._session.request(command, timeout=REPLY_SECONDS, **members)
        except RequestFailed as error:
            self._note(f"{title}未执行：{error}", f"{what}: refused: {error}")
            return None
        self._tell(f"{what}: {reply['message']}")
        return reply

    def _note(self, text, terminal_text=None):
        self._recording.events.append((self._now(), text))
        if terminal_text:
            self._tell(terminal_text)


SETTING_NAMES = {"sleep": "系统休眠", "displaysleep": "显示器休眠", "lowpowermode": "低电量模式"}


def edit_text(edit):
    if edit["key"] == "lowpowermode":
        return SETTING_NAMES["lowpowermode"] + ("开启" if edit["after"] else "关闭")
    name = SETTING_NAMES.get(edit["key"], edit["key"])
    return f"{name} {edit['before']} → {edit['after']} 分钟"
