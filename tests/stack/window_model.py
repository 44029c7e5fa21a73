"""The compositor's window model, which is asked to bring an application to the front."""

from .standin import StandIn


class WindowModel(StandIn):
    """launched lists the applications that launchProcess was called for, in order."""

    SERVICE = "org.nemomobile.lipstick"
    PATH = "/WindowModel"
    INTERFACE = "local.Lipstick.WindowModel"
    METHODS = {"launchProcess": "s"}

    def __init__(self, bus):
        self.launched = []
        super().__init__(bus)

    def on_launchProcess(self, message, application):
        self.launched.append(str(application))
        self.reply(message, "")
