#!/usr/bin/env python3
"""Builds the administrators' installer of TarnSMX with wixl and msibuild (msitools).

    make-msi.py <version> <x64 TarnSMX.dll> <x86 TarnSMX.dll> <out.msi>

Per machine; both DLLs go to Program Files (the 32-bit one where 32-bit hosts look). The
class, ProgIDs, interface and type library are written from the package's own Registry table,
the same keys DllRegisterServer writes, in the 64-bit view and, for the keys that WOW64
redirects (CLSID, Interface), in the 32-bit view too. The DLL is never run.

Optional vendor configuration, given as public properties on the msiexec command line:
    VENDORID                    the vendor key Software\\Ostrum\\Kestrel\\Config\\<VENDORID>
    TRUSTEDSIGNER1..4           its TarnSM\\TrustedSigners subkeys
    TRUSTEDCONTAINER1..4        its TarnSM\\TrustedContainers subkeys
    DOWNLOADTIMEOUT             TrustedSiteDownloadTimeout in milliseconds (for the vendor,
                                or the machine's default when VENDORID is not given)
Both registry views get them, since 32-bit hosts read the 32-bit view. The values are kept
under Software\\Ostrum\\TarnSMX\\Setup so that uninstall removes exactly what install wrote.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import uuid
from xml.sax.saxutils import quoteattr

CLSID = "{673D89B5-D69D-4BC1-94F9-E80FFC6D55E9}"
IID = "{94CC1F71-0223-4A2A-8890-5A59BA98BB2A}"
LIBID = "{940A9063-F717-4AA7-949A-2E886F0D6F53}"
APPID = "{B96603AC-39C0-4E74-A121-889B2C8B41C5}"
PSOAINTERFACE = "{00020424-0000-0000-C000-000000000046}"
PROGID, INDEPENDENT, DESCRIPTION = "TarnSM.TarnSM.1", "TarnSM.TarnSM", "TarnSM Class"
UPGRADE_CODE = "5B0F5D0E-6C2B-4F4B-9B53-0E2A6D1C7A11"
CONFIG = r"Software\Ostrum\Kestrel\Config"
SETUP = r"Software\Ostrum\TarnSMX\Setup"
SLOTS = 4
VENDOR_PROPERTIES = (["VENDORID", "DOWNLOADTIMEOUT"] + ["TRUSTEDSIGNER%d" % i for i in range(1, SLOTS + 1)]
                     + ["TRUSTEDCONTAINER%d" % i for i in range(1, SLOTS + 1)])


def guid(name):
    # Component GUIDs must stay the same from one version to the next.
    return str(uuid.uuid5(uuid.UUID(UPGRADE_CODE), name)).upper()


def value(key, data, name=None):
    name_attr = "" if name is None else " Name=%s" % quoteattr(name)
    return '<RegistryValue Root="HKLM" Key=%s%s Value=%s Type="string"/>' % (quoteattr(key), name_attr,
                                                                          quoteattr(data))


def view_keys(dll_file):
    """The keys that exist once per registry view."""
    cls = "Software\\Classes\\CLSID\\" + CLSID
    itf = "Software\\Classes\\Interface\\" + IID
    return [
        value(cls, DESCRIPTION), value(cls, APPID, "AppID"),
        value(cls + "\\ProgID", PROGID), value(cls + "\\VersionIndependentProgID", INDEPENDENT),
        value(cls + "\\InprocServer32", "[#%s]" % dll_file),
        value(cls + "\\InprocServer32", "Apartment", "ThreadingModel"),
        value(cls + "\\TypeLib", LIBID),
        value(itf, "ITarnSM"), value(itf + "\\ProxyStubClsid", PSOAINTERFACE),
        value(itf + "\\ProxyStubClsid32", PSOAINTERFACE), value(itf + "\\TypeLib", LIBID),
    ]


def shared_keys(tlb_version):
    """Keys WOW64 shares between the views: written once, from the 64-bit component."""
    lib = "Software\\Classes\\TypeLib\\%s\\%s" % (LIBID, tlb_version)
    return [
        value("Software\\Classes\\" + PROGID, DESCRIPTION), value("Software\\Classes\\%s\\CLSID" % PROGID, CLSID),
        value("Software\\Classes\\" + INDEPENDENT, DESCRIPTION),
        value("Software\\Classes\\%s\\CLSID" % INDEPENDENT, CLSID),
        value("Software\\Classes\\%s\\CurVer" % INDEPENDENT, PROGID),
        value("Software\\Classes\\AppID\\" + APPID, "TarnSMX"),
        value(lib, "TarnSM %s Type Library" % tlb_version), value(lib + "\\FLAGS", "0"),
        value(lib + "\\HELPDIR", "[INSTALLDIR64]"),
        value(lib + "\\0\\win64", "[#DllX64]"), value(lib + "\\0\\win32", "[#DllX86]"),
    ] + [value("Software\\Classes\\Interface\\%s\\TypeLib" % IID, tlb_version, "Version")]


def vendor_components(view):
    """(component id, condition, registry rows) for the optional vendor configuration."""
    vendor = CONFIG + "\\[VENDORID]"
    rows = [("VendorKey" + view, "VENDORID", [(vendor, "*", None)])]
    for i in range(1, SLOTS + 1):
        rows.append(("Signer%d%s" % (i, view), "VENDORID AND TRUSTEDSIGNER%d" % i,
                     [(vendor + "\\TarnSM\\TrustedSigners\\[TRUSTEDSIGNER%d]" % i, "*", None)]))
        rows.append(("Container%d%s" % (i, view), "VENDORID AND TRUSTEDCONTAINER%d" % i,
                     [(vendor + "\\TarnSM\\TrustedContainers\\[TRUSTEDCONTAINER%d]" % i, "*", None)]))
    timeout = "TrustedSiteDownloadTimeout"
    rows.append(("VendorTimeout" + view, "VENDORID AND DOWNLOADTIMEOUT",
                 [(CONFIG + "\\TarnSM\\[VENDORID]", timeout, "#[DOWNLOADTIMEOUT]")]))
    rows.append(("DefaultTimeout" + view, "DOWNLOADTIMEOUT AND NOT VENDORID",
                 [(CONFIG + "\\TarnSM", timeout, "#[DOWNLOADTIMEOUT]")]))
    return rows


def component(cid, body, win64):
    # Rows of both views share keys and names, so each row gets an id of its own.
    body = [line.replace("<RegistryValue ", '<RegistryValue Id="reg%s%d" ' % (cid, n), 1)
            for n, line in enumerate(body)]
    attrs = 'Id="%s" Guid="%s" Win64="%s"' % (cid, guid(cid), "yes" if win64 else "no")
    return "<Component %s>\n  %s\n</Component>" % (attrs, "\n  ".join(body))


def wxs(version, dll64, dll32, tlb_version):
    searches = "\n".join(
        '<Property Id="%s"><RegistrySearch Id="Find%s" Root="HKLM" Key="%s" Name="%s" Type="raw" Win64="yes"/>'
        '</Property>' % (p, p, SETUP, p) for p in VENDOR_PROPERTIES)
    remembered = [value(SETUP, "[%s]" % p, p) for p in VENDOR_PROPERTIES]
    # Uninstall removes the install folders too.
    comps64 = [component("DllX64", ['<File Id="DllX64" Name="TarnSMX.dll" Source=%s KeyPath="yes"/>' % quoteattr(dll64),
                                    '<RemoveFolder Id="RemoveFolder64" On="uninstall"/>']
                         + view_keys("DllX64") + shared_keys(tlb_version), True),
               component("Setup", remembered, True)]
    comps32 = [component("DllX86", ['<File Id="DllX86" Name="TarnSMX.dll" Source=%s KeyPath="yes"/>' % quoteattr(dll32),
                                    '<RemoveFolder Id="RemoveFolder32" On="uninstall"/>']
                         + view_keys("DllX86"), False)]
    # Placeholders: their registry rows and conditions are added with SQL (wixl has neither).
    for view, target in (("64", comps64), ("32", comps32)):
        for cid, _, _ in vendor_components(view):
            target.append('<Component Id="%s" Guid="%s" Win64="%s"/>' % (
                cid, guid(cid), "yes" if view == "64" else "no"))
    refs = "\n".join('<ComponentRef Id="%s"/>' % c.split('"')[1] for c in comps64 + comps32)
    return """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
<Product Id="*" Name="TarnSMX" Language="1033" Version="%(version)s" Manufacturer="Ostrum" UpgradeCode="%(upgrade)s">
<Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine" Description="TarnSM trust control %(version)s"/>
<Media Id="1" Cabinet="TarnSMX.cab" EmbedCab="yes"/>
<MajorUpgrade DowngradeErrorMessage="A newer version of TarnSMX is already installed."/>
%(searches)s
<Directory Id="TARGETDIR" Name="SourceDir">
<Directory Id="ProgramFiles64Folder"><Directory Id="Ostrum64" Name="Ostrum"><Directory Id="INSTALLDIR64" Name="TarnSMX">
%(comps64)s
</Directory></Directory></Directory>
<Directory Id="ProgramFilesFolder"><Directory Id="Ostrum32" Name="Ostrum"><Directory Id="INSTALLDIR32" Name="TarnSMX">
%(comps32)s
</Directory></Directory></Directory>
</Directory>
<Feature Id="TarnSMX" Level="1">
%(refs)s
</Feature>
</Product>
</Wix>
""" % dict(version=version, upgrade=UPGRADE_CODE, searches=searches,
           comps64="\n".join(comps64), comps32="\n".join(comps32), refs=refs)


def sql_text(s):
    return "'" + s.replace("'", "''") + "'"


def main(argv):
    if len(argv) != 5:
        sys.stderr.write(__doc__)
        return 2
    version, dll64, dll32, out = argv[1:]
    tlb_version = ".".join(version.split(".")[:2])
    with tempfile.TemporaryDirectory() as tmp:
        # wixl takes sources relative to the .wxs file only.
        for arch, dll in (("x64", dll64), ("x86", dll32)):
            os.mkdir(os.path.join(tmp, arch))
            shutil.copyfile(dll, os.path.join(tmp, arch, "TarnSMX.dll"))
        src = os.path.join(tmp, "TarnSMX.wxs")
        with open(src, "w", encoding="utf-8") as f:
            f.write(wxs(version, "x64/TarnSMX.dll", "x86/TarnSMX.dll", tlb_version))
        built = subprocess.run(["wixl", "-a", "x64", "-o", os.path.abspath(out), "TarnSMX.wxs"], cwd=tmp,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if built.returncode != 0:
            sys.stderr.write(built.stdout)
            return 1
    # Properties given on the command line reach the per-machine install only when secure.
    queries = ["UPDATE `Property` SET `Value` = %s WHERE `Property` = 'SecureCustomProperties'"
               % sql_text(";".join(["WIX_DOWNGRADE_DETECTED", "WIX_UPGRADE_DETECTED"] + VENDOR_PROPERTIES))]
    # The Ostrum folders are created, and removed again when empty, by the standard folder actions.
    queries += ["INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('RemoveFolders', 3600)",
                "INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('CreateFolders', 3700)"]
    for view, cid in (("64", "DllX64"), ("32", "DllX86")):
        queries.append("INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('Ostrum%s', '%s')" % (view, cid))
    programmable = "Software\\Classes\\CLSID\\%s\\Programmable" % CLSID
    for cid in ("DllX64", "DllX86"):
        queries.append("INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Component_`) "
                       "VALUES (%s, 2, %s, '*', %s)" % (sql_text("regProgrammable" + cid), sql_text(programmable),
                                                        sql_text(cid)))
    for view in ("64", "32"):
        for cid, condition, rows in vendor_components(view):
            # No key path: the install folder stands for these components.
            queries.append("UPDATE `Component` SET `Condition` = %s WHERE `Component` = %s"
                           % (sql_text(condition), sql_text(cid)))
            for key, name, data in rows:
                columns, values = ["Registry", "Root", "Key", "Name", "Component_"], ["reg" + cid, key, name, cid]
                if data is not None:
                    columns.append("Value")
                    values.append(data)
                queries.append("INSERT INTO `Registry` (%s) VALUES (%s)" % (
                    ", ".join("`%s`" % c for c in columns),
                    ", ".join("2" if c == "Root" else sql_text(v) for c, v in zip(columns, values[:1] + [2] + values[1:]))))
    for q in queries:
        subprocess.run(["msibuild", out, "-q", q], check=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
