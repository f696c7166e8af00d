' The provider list and version as a VBScript page sees them:
'   cscript //nologo providers.vbs
' Prints each RSA full provider as "CSP <index> <name>", then "providers OK"
' or "providers FAIL <why>"; exits 0 or 1.
Option Explicit
Dim k, i, name, failed
failed = ""
On Error Resume Next
Set k = CreateObject("Korvanta.BrendalKorvanta")
If Err.Number <> 0 Then failed = "CreateObject: " & Err.Description
On Error GoTo 0

If failed = "" Then
  If k.listCSP(-1) <> "" Then failed = "listCSP(-1) is not empty"
  i = 0
  Do
    name = k.listCSP(i)
    If IsNull(name) Or IsEmpty(name) Then Exit Do
    If name = "" Then Exit Do
    WScript.Echo "CSP " & i & " " & name
    i = i + 1
    If i > 64 Then
      failed = "the provider list does not end"
      Exit Do
    End If
  Loop
  If failed = "" And i < 2 Then failed = "fewer than two RSA full providers"
  If failed = "" And k.getVersion() <> "Version:2.5.26.1 Build:201406041650" Then
    failed = "getVersion gave " & k.getVersion()
  End If
  ' A positive status is no error to the script: the empty provider name
  ' is accepted, and key generation then gives the empty string.
  k.setCSP ""
  If failed = "" And k.genKeyPair(1024) <> "" Then failed = "genKeyPair without a provider"
End If

If failed = "" Then
  WScript.Echo "providers OK"
  WScript.Quit 0
Else
  WScript.Echo "providers FAIL " & failed
  WScript.Quit 1
End If
