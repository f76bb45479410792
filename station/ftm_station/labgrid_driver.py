"""The driver for labgrid: a Station on a serial port of a place, local or over the network."""

import attr
from labgrid.driver import Driver
from labgrid.factory import target_factory
from labgrid.resource import NetworkSerialPort
from labgrid.util.proxy import proxymanager

from .station import Station


@target_factory.reg_driver
@attr.s(eq=False)
class StationDriver(Driver):
    """station is the line to the phone while the driver is active.

    patience: seconds that are granted on top of the longest time that the table gives a command.
    """

    bindings = {"port": {"SerialPort", "NetworkSerialPort"}}
    patience: float = attr.ib(default=3.0, validator=attr.validators.instance_of(float))
    station: Station | None = None

    def on_activate(self) -> None:
        self.station = Station(self._url(), speed=self.port.speed, patience=self.patience)

    def on_deactivate(self) -> None:
        if self.station is not None:
            self.station.close()
            self.station = None

    def _url(self) -> str:
        if not isinstance(self.port, NetworkSerialPort):
            return str(self.port.port)
        host, port = proxymanager.get_host_and_port(self.port)
        if self.port.protocol == "raw":
            return f"socket://{host}:{port}"
        # A line without modem controls never acknowledges them, and a phone's needs none.
        return f"rfc2217://{host}:{port}?ign_set_control"
