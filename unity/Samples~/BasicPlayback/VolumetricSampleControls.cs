// Sample controls for a volumetric clip: the camera this script sits on circles the player's mesh,
// and a few on-screen buttons drive the player. Put it on the scene's camera and drag the
// GameObject with the OzmVolumetricPlayer onto "player".
using Ozm.Volumetric;
using UnityEngine;

public class VolumetricSampleControls : MonoBehaviour
{
    [SerializeField] OzmVolumetricPlayer player = null;
    [Tooltip("Degrees a second around the clip's vertical axis")]
    [SerializeField] float degreesPerSecond = 20f;
    [Tooltip("Distance from the clip, in multiples of its size")]
    [SerializeField] float distance = 1.5f;

    int m_ends;
    float m_angle;

    void OnEnable()
    {
        if (player != null) player.EndOfClip.AddListener(CountEnd);
    }

    void OnDisable()
    {
        if (player != null) player.EndOfClip.RemoveListener(CountEnd);
    }

    void CountEnd()
    {
        m_ends++;
    }

    void LateUpdate()
    {
        if (player == null || player.Mesh == null) return;
        // The mesh's bounds follow the frame drawn; the clip's box is steadier to circle.
        OzmFileInfo file = player.FileInfo;
        var box = new Bounds();
        box.SetMinMax(new Vector3((float)file.bboxMinX, (float)file.bboxMinY, (float)file.bboxMinZ),
                      new Vector3((float)file.bboxMaxX, (float)file.bboxMaxY, (float)file.bboxMaxZ));
        Vector3 center = player.transform.TransformPoint(box.center);
        float radius = Mathf.Max(box.size.magnitude * distance, 0.1f);
        m_angle += degreesPerSecond * Time.deltaTime;
        float radians = m_angle * Mathf.Deg2Rad;
        transform.position = center + new Vector3(Mathf.Sin(radians), 0.3f, -Mathf.Cos(radians)) * radius;
        transform.LookAt(center);
    }

    void OnGUI()
    {
        if (player == null) return;
        GUILayout.BeginArea(new Rect(10, 10, 260, 220));
        OzmFrameInfo frame = player.FrameInfo;
        GUILayout.Label("frame " + frame.frameId + " of " + player.FileInfo.frameCount + ", " + frame.TimeSeconds.ToString("0.00") +
                        " s, ends: " + m_ends);
        if (GUILayout.Button(player.IsPlaying ? "Pause" : "Play"))
        {
            if (player.IsPlaying) player.Pause();
            else player.Play();
        }
        if (GUILayout.Button("Rewind")) player.Rewind();
        player.Loop = GUILayout.Toggle(player.Loop, "Loop");
        GUILayout.Label("Speed " + player.ClockScale.ToString("0.00") + "x");
        // OnGUI runs several times a frame: hand the player a new speed only when it changed.
        float speed = GUILayout.HorizontalSlider(player.ClockScale, 0.25f, 2f);
        if (!Mathf.Approximately(speed, player.ClockScale)) player.ClockScale = speed;
        GUILayout.EndArea();
    }
}
