"""The two files of a key store, as a test writes and reads them."""

import xml.etree.ElementTree
from pathlib import Path

UID = "0123456789abcdef0123456789abcdef"
PRIVATE_FILE = "key_contents_prv.xml"
PUBLIC_FILE = "key_contents_pub.xml"


def write_store(directory, private_keys, public_keys=None):
    """Keys by their names, of one device; each handle is the number of the record in its file."""
    for name, keys in ((PRIVATE_FILE, private_keys), (PUBLIC_FILE, public_keys or {})):
        records = (f"<key_content><uid>{UID}</uid><key_name>{key_name}</key_name>"
                   f"<handle>{number + 1}</handle><key>{key.hex()}</key></key_content>\n"
                   for number, (key_name, key) in enumerate(keys.items()))
        Path(directory, name).write_text(f"<keys>\n{''.join(records)}</keys>\n", encoding="utf-8")


def records(directory, name=PRIVATE_FILE):
    """The records of a file, each as a dictionary of its texts."""
    root = xml.etree.ElementTree.parse(Path(directory, name)).getroot()
    return [{child.tag: child.text or "" for child in record} for record in root]


def private_keys(directory):
    return {record["key_name"]: bytes.fromhex(record["key"]) for record in records(directory)}
