# Generic attribute access from Python: every attribute the type registry lists is reachable by its
# name, with the typed mutators' notifications and errors; bad names and values are refused clearly.
import pytest

import intfsm

# Where a typed binding of the same name exists, it answers first; `generic` goes through the table.
generic = intfsm.Entity.__getattr__


@pytest.mark.parametrize("type_name", intfsm.typeNames())
def test_every_registry_name_has_a_table_entry(type_name):
    registry = intfsm.registryAttributes(type_name)
    assert registry, f"{type_name} lists no attributes"
    assert intfsm.attributeNames(type_name)[:len(registry)] == registry  # then what it inherits


def test_scalar_and_instantiating_attributes_round_trip():
    root = intfsm.newEntity("KernelOperState::Root", "kos")
    assert root.vornAttributes() == intfsm.registryAttributes("KernelOperState::Root")
    # Non-entity notifiers (the oper-state manager) have generic access too.
    assert root.kosmIs().vornAttributes() == intfsm.registryAttributes("KernelOperState::KernelOperStateManager")
    root.kosmDel()
    assert root.operStateConvergence is False
    root.operStateConvergence = True
    assert root.operStateConvergence is True
    assert generic(root, "operStateConvergence") is True
    kosm = generic(root, "kosmIs")()
    assert generic(root, "kosm") is kosm is root.kosm
    generic(root, "kosmDel")()
    assert generic(root, "kosm") is None
    d = generic(root, "intfStatusDirIs")("s")
    assert d.name == "s" and generic(root, "intfStatusDir") is d
    assert generic(root, "intfStatusDirIs")("s") is d  # the same name keeps the child
    netNs = generic(root, "netNsCollectionIs")("netNs")
    assert generic(root, "netNsManagerIs")(netNs) is root.netNsManager


def test_keyed_collection_as_a_mapping():
    root = intfsm.newEntity("KernelOperState::Root", "kos")
    d = root.intfStatusDirIs("s")
    assert d.vornAttributes(), "KernelOperState::IntfStatusDir has no attribute table"
    status = intfsm.IntfStatus("Ethernet1")
    generic(d, "intfStatusIs")(status)
    assert len(d.intfStatus) == 1 and "Ethernet1" in d.intfStatus and "Ethernet2" not in d.intfStatus
    assert d.intfStatus["Ethernet1"] is status and list(d.intfStatus) == ["Ethernet1"]
    assert d.intfStatus.items() == [("Ethernet1", status)]
    with pytest.raises(KeyError):
        d.intfStatus["Ethernet2"]
    del d.intfStatus["Ethernet1"]
    assert len(d.intfStatus) == 0
    with pytest.raises(ValueError, match='null _intfStatus parameter to mutator for '
                                         'KernelOperState::IntfStatusDir::intfStatus not allowed"'):
        generic(d, "intfStatusIs")(None)


def test_callable_operation():
    r = intfsm.simpleTxRxPktManagerFactory(intfsm.DeviceIntfStatusDir("d"))
    assert r.vornAttributes(), "Interface::SimpleTxRxPktManager has no attribute table"
    r.desiredIntfDirIs("desired")
    assert generic(r, "addIntfPam")("Ethernet1") is True
    assert r.desiredIntfDir.intfDesired["Ethernet1"] is True


@pytest.mark.parametrize("action, error, text", [
    (lambda root: root.nosuch, AttributeError, "'KernelOperState::Root' object has no attribute 'nosuch'"),
    (lambda root: setattr(root, "nosuch", 1), AttributeError, "has no attribute 'nosuch'"),
    (lambda root: setattr(root, "operStateConvergence", "yes"), intfsm.ValueTypeError, ""),
    (lambda root: generic(root, "intfStatusOperStatusSmIs")("only one"), TypeError, "argument"),
    (lambda root: generic(root, "netNsManagerIs")(intfsm.IntfStatus("Ethernet1")), intfsm.ValueTypeError,
     "KernelNetNsInfo::Root expected, got Interface::IntfStatus"),
])
def test_bad_names_and_values_are_refused(action, error, text):
    root = intfsm.newEntity("KernelOperState::Root", "kos")
    with pytest.raises(error) as raised:
        action(root)
    assert text in str(raised.value)
    assert root.operStateConvergence is False  # nothing changed
