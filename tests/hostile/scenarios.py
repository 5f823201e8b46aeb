"""All scenarios, in the order in which they run."""

from hostile.agent_crashes import AgentCrashes
from hostile.all_gone import AllGone
from hostile.client_storms import ClientStorms
from hostile.dead_servers import DeadServers
from hostile.idle import Idle
from hostile.local_users import LocalUsers
from hostile.million import Million
from hostile.power_cuts import PowerCuts
from hostile.scarce_descriptors import ScarceDescriptors
from hostile.service_crashes import ServiceCrashes
from hostile.silent_log import SilentLog
from hostile.slow_senders import SlowSenders
from hostile.vanished_senders import VanishedSenders

ALL = [SlowSenders(), VanishedSenders(), DeadServers(), ClientStorms(), LocalUsers(), ScarceDescriptors(),
       SilentLog(), AgentCrashes(), ServiceCrashes(), PowerCuts(), AllGone(), Idle()]


def million(pushes):
    """The long one, which runs alone."""
    return Million(pushes)
