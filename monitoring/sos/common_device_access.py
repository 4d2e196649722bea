# A plugin of sos: records the machine's PCI functions, UIO devices and logs in its report, as an archive
# of which chassis-sim makes a chassis. It goes into sos/report/plugins.

from sos.report.plugins import DebianPlugin, IndependentPlugin, Plugin, RedHatPlugin, UbuntuPlugin


# For every system; but Debian's sos 4.0 takes no IndependentPlugin.
class CommonDeviceAccess(Plugin, IndependentPlugin, DebianPlugin, UbuntuPlugin, RedHatPlugin):

    short_desc = "PCI functions, UIO devices and logs of a modular chassis"
    plugin_name = "common_device_access"
    profiles = ("hardware", "system")
    commands = ("devaccess",)

    def setup(self):
        self.add_copy_spec(["/etc/default/devaccess-monitoring"])
        self.add_cmd_output("devaccess collect -", suggest_filename="machine.tar", binary=True,
                            stderr=False, sizelimit=0)
        self.add_cmd_output([
            "devaccess check",
            "devaccess metrics",
            "devaccess pci tree",
            "devaccess podlog check",
            "devaccess podlog timeline --post",
        ])
