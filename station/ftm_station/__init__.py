"""A test station's side of the factory-test line.

    from ftm_station import Handset, Station
    with Handset() as handset, Station(handset.line) as phone:
        print(phone.command("AT+EADC=1")["voltage"])
"""

from .answer import Result
from .errors import HandsetError, NoPort, PortClosed, StationError, TimeOut, UnexpectedReply
from .handset import Control, Handset
from .station import Entry, Station

__all__ = [
    "Control",
    "Entry",
    "Handset",
    "HandsetError",
    "NoPort",
    "PortClosed",
    "Result",
    "Station",
    "StationError",
    "TimeOut",
    "UnexpectedReply",
]
