' A script client of the dynamic scanner, as an author's build script would be: the events come through
' WScript.CreateObject's prefix. HOST and PLUGIN are filled in by the test.
Dim finished, found, children
finished = False
found = ""
children = 0

Sub dc_DependencyFound(file)
    found = found & file.Name & ";"
End Sub

Sub dc_ChildProcessCreated(id)
    children = children + 1
End Sub

Sub dc_ApplicationFinished()
    finished = True
End Sub

Set dc = WScript.CreateObject("RunTimeDepChecker.DepChecker", "dc_")
dc.Filtering = True
dc.Launch "HOST", "load ""PLUGIN"" child ""\""HOST\"" exit 0""", ""
For i = 1 To 300
    If finished Then Exit For
    WScript.Sleep 100
Next
WScript.Echo "finished=" & finished & " found=" & found & " children=" & children & _
             " running=" & dc.ApplicationRunning & " bags=" & dc.Dependencies.Count
WScript.Quit 7
