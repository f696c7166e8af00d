// Drives korvanta.dll as a page does, one step of an enrolment per run:
//   cscript //nologo enrol.js STEP WORKDIR [AUTHCODE]
// Files in WORKDIR carry the values between the steps and the reference CA
// on the host. Each run prints "STEP OK" or "STEP FAIL <why>" and exits with
// 0 or 1 (cscript itself exits 0 even on a script error, so the runner also
// looks for the OK line).
var PROVIDER = "Microsoft Enhanced Cryptographic Provider v1.0";
var fso = new ActiveXObject("Scripting.FileSystemObject");
var step = WScript.Arguments.length > 0 ? WScript.Arguments(0) : "";
var dir = WScript.Arguments.length > 1 ? WScript.Arguments(1) : "";
var authCode = WScript.Arguments.length > 2 ? WScript.Arguments(2) : "";

function path(name) { return dir + "\\" + name; }
function readText(name) {
  var f = fso.OpenTextFile(path(name), 1);
  var t = f.AtEndOfStream ? "" : f.ReadAll();
  f.Close();
  return t.replace(/\s+/g, "");
}
function writeText(name, text) {
  var f = fso.CreateTextFile(path(name), true);
  f.Write(text);
  f.Close();
}
function fail(why) { throw new Error(why); }
function expectText(what, value) {
  if (value === null || value === undefined || value === "") fail(what + " gave no text");
  return value;
}
function expectRet(what, got, want) {
  if (got !== want) fail(what + " returned " + got + ", expected " + want);
}
function control() {
  var k = new ActiveXObject("Korvanta.BrendalKorvanta");
  k.setCSP(PROVIDER);
  return k;
}

var steps = {
  // A signature key and the MAC-sealed download request for it.
  "client-request": function () {
    var k = control();
    var pub = expectText("genKeyPair", k.genKeyPair(1024));
    writeText("pubkey.b64", pub);
    writeText("message.xml",
              expectText("genEEDownCertRequestData_Client",
                         k.genEEDownCertRequestData_Client("REF-1", authCode, pub)));
  },
  // A later page installs what the CA sent; the key file is consumed.
  "client-install": function () {
    var k = control();
    var p7 = readText("p7.b64");
    expectRet("writeClientCert", k.writeClientCert(p7), 0);
    expectRet("writeClientCert again", k.writeClientCert(p7), 22038309);
  },
  // The user signs a revocation request and a KMC update request with the
  // configured certificate.
  "revoke": function () {
    var k = control();
    writeText("revoke.xml", expectText("genEERevokeCertRequestData",
                                       k.genEERevokeCertRequestData()));
    writeText("update.xml", expectText("genEEUpdateCertRequestData_Kmc",
                                       k.genEEUpdateCertRequestData_Kmc(readText("pubkey.b64"),
                                                                        "2048")));
  },
  // A request with a subject of the page's choosing; the key exportable, as
  // the software install copies it.
  "p10-request": function () {
    var k = control();
    writeText("p10.b64", expectText("genP10_exp_withdn",
                                    k.genP10_exp_withdn(1024, 1, "CN=Korvanta P10,C=CN")));
  },
  "p10-install": function () {
    var k = control();
    expectRet("writeClientCert_exp", k.writeClientCert_exp(readText("p7.b64")), 0);
  },
  // The KMC enrolment: a temporary key and the KMC's download request.
  "kmc-request": function () {
    var k = control();
    var tmp = expectText("genTempKeyPair", k.genTempKeyPair());
    writeText("tempkey.b64", tmp);
    writeText("message.xml",
              expectText("genEEDownCertRequestData_Kmc",
                         k.genEEDownCertRequestData_Kmc("REF-2", authCode, tmp, "2048")));
  },
  "kmc-install": function () {
    var k = control();
    expectRet("writeKmcCert", k.writeKmcCert(readText("p7.b64"), readText("encprikey.b64"),
                                              readText("tempukek.b64")), 0);
  },
  // Key recovery: the same import into a new container.
  "kmc-restore": function () {
    var k = control();
    expectRet("restoreKmcCert", k.restoreKmcCert(readText("p7.b64"), readText("encprikey.b64"),
                                                  readText("tempukek.b64")), 0);
  },
  "kmc-pfx": function () {
    var k = control();
    writeText("pfx.b64", expectText("writeKmcCertToPFX",
                                    k.writeKmcCertToPFX(readText("p7.b64"),
                                                        readText("encprikey.b64"),
                                                        readText("tempukek.b64"), "pfx-pass")));
  },
  // A KMC key of a size the import refuses: a script error, no ret.
  "kmc-refused": function () {
    var k = control();
    var ret = "unset";
    try {
      ret = k.writeKmcCert(readText("p7.b64"), readText("encprikey.b64"),
                           readText("tempukek.b64"));
    } catch (e) {
      return;
    }
    fail("writeKmcCert accepted the key, ret " + ret);
  },
  // A fresh signature key, for the installs below.
  "key-request": function () {
    var k = control();
    writeText("pubkey.b64", expectText("genKeyPair", k.genKeyPair(1024)));
  },
  // The key bound without protection: not exportable from its new container.
  "noprotect-install": function () {
    var k = control();
    expectRet("writeClientCert_noprotect", k.writeClientCert_noprotect(readText("p7.b64")), 0);
  },
  // An exchange key and its request, installed under key specification 1.
  "kex-request": function () {
    var k = control();
    writeText("p10.b64", expectText("genP10_kex", k.genP10_kex(1024)));
  },
  "kex-install": function () {
    var k = control();
    expectRet("writeClientCert_kex", k.writeClientCert_kex(readText("p7.b64")), 0);
  },
  // Only the certificate that expires last stays in MY:
  //   leave WORKDIR USERDN ISSUERDN
  "leave": function () {
    var k = control();
    var user = WScript.Arguments(2), issuer = WScript.Arguments(3);
    expectRet("leavingMostRecentCert", k.leavingMostRecentCert(user, issuer), 0);
    expectRet("leavingMostRecentCert of nobody", k.leavingMostRecentCert("CN=nobody", issuer),
              8126);
  },
  // Certificate and key back as a PFX for the user to keep.
  "pfx-install": function () {
    var k = control();
    writeText("pfx.b64", expectText("writeClientCertToPFX",
                                    k.writeClientCertToPFX(readText("p7.b64"), "pfx-pass")));
  }
};

var code = 1;
try {
  if (!steps[step]) fail("unknown step");
  steps[step]();
  WScript.Echo(step + " OK");
  code = 0;
} catch (e) {
  WScript.Echo(step + " FAIL " + (e.message || e.description || e));
}
WScript.Quit(code);
